#include "window.h"

#define SDL_MAIN_HANDLED
#include <SDL.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string_view>

#include <ka/message.h>

#include "tool.h"

namespace {

constexpr Uint32 kTurn = 250;  // milliseconds between two looks at the files
constexpr Size kSmallest{320, 200};
constexpr double kShareOfScreen = 0.9;

bool is_set(const char* variable) {
  const char* const value = std::getenv(variable);
  return value && *value;
}

int key_of(const SDL_Keysym& key) {
  switch (key.sym) {
    case SDLK_LEFT:
      return kKeyLeft;
    case SDLK_RIGHT:
      return kKeyRight;
    case SDLK_UP:
      return kKeyUp;
    case SDLK_DOWN:
      return kKeyDown;
    case SDLK_F1:
      return kKeyHelp;
    case SDLK_ESCAPE:
      return kKeyEscape;
    case SDLK_PLUS:
    case SDLK_EQUALS:  // the key of + without the shift
    case SDLK_KP_PLUS:
      return '+';
    case SDLK_MINUS:
    case SDLK_KP_MINUS:
      return '-';
    case SDLK_KP_0:
      return '0';
    case SDLK_KP_1:
      return '1';
    default:
      break;
  }
  if (key.sym < 0 || key.sym > 127) return 0;
  if (key.mod & KMOD_CTRL) return key.sym == 'g' ? kKeyLessGamma : 0;
  if (key.mod & (KMOD_ALT | KMOD_GUI)) return 0;
  const bool is_letter = key.sym >= 'a' && key.sym <= 'z';
  return is_letter && key.mod & KMOD_SHIFT ? key.sym - 'a' + 'A' : key.sym;
}

class Window {
 public:
  explicit Window(Viewer& viewer) : viewer_(viewer) {
    const Size size = first_size();
    window_ = SDL_CreateWindow("", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, size.width,
                               size.height, SDL_WINDOW_RESIZABLE);
    if (!window_) fail(std::string("cannot open a window (") + SDL_GetError() + ")");
    SDL_StopTextInput();  // keys are commands
    viewer_.resize(size);
  }
  ~Window() { SDL_DestroyWindow(window_); }
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  void run() {
    while (is_open_) {
      if (needs_drawing_) draw();
      SDL_Event event;
      const Uint32 now = SDL_GetTicks();
      const Uint32 wait = turn_ > now ? turn_ - now : 0;
      if (SDL_WaitEventTimeout(&event, int(std::min(wait, kTurn)))) {
        do {
          take(event);
        } while (is_open_ && SDL_PollEvent(&event));
      }
      if (SDL_GetTicks() < turn_) continue;
      needs_drawing_ |= viewer_.follow_files();
      turn_ = SDL_GetTicks() + kTurn;
    }
  }

 private:
  [[nodiscard]] Size first_size() const {
    SDL_Rect screen{0, 0, 1024, 768};
    SDL_GetDisplayUsableBounds(0, &screen);
    const Size size = viewer_.natural_size();
    const auto side = [](int wanted, int least, int all) {
      return std::max(std::min(std::max(wanted, least), int(all * kShareOfScreen)), 1);
    };
    return {side(size.width, kSmallest.width, screen.w),
            side(size.height, kSmallest.height, screen.h)};
  }

  void take(const SDL_Event& event) {
    switch (event.type) {
      case SDL_QUIT:
        is_open_ = false;
        break;
      case SDL_KEYDOWN:
        is_open_ = viewer_.press(key_of(event.key.keysym));
        break;
      case SDL_MOUSEWHEEL:
        viewer_.zoom(event.wheel.direction == SDL_MOUSEWHEEL_FLIPPED ? -event.wheel.y
                                                                     : event.wheel.y);
        break;
      case SDL_MOUSEMOTION:
        if (event.motion.state & SDL_BUTTON_LMASK) {
          viewer_.drag(event.motion.xrel, event.motion.yrel);
        }
        viewer_.point_at(Point{double(event.motion.x), double(event.motion.y)});
        break;
      case SDL_WINDOWEVENT:
        take_window_event(event.window);
        break;
      default:
        return;
    }
    needs_drawing_ = true;
  }

  void take_window_event(const SDL_WindowEvent& event) {
    if (event.event == SDL_WINDOWEVENT_SIZE_CHANGED) viewer_.resize({event.data1, event.data2});
    if (event.event == SDL_WINDOWEVENT_LEAVE) viewer_.point_at({});
  }

  void draw() {
    needs_drawing_ = false;
    const std::string title = viewer_.title();
    if (title != title_) SDL_SetWindowTitle(window_, title.c_str());
    title_ = title;
    SDL_Surface* const surface = SDL_GetWindowSurface(window_);
    if (!surface) fail(std::string("cannot draw in the window (") + SDL_GetError() + ")");
    const auto start = std::chrono::steady_clock::now();
    draw_on(*surface);
    SDL_UpdateWindowSurface(window_);
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
    ka_progress("%d x %d pixels drawn in %.1f ms", surface->w, surface->h, time.count());
  }

  void draw_on(SDL_Surface& surface) {
    const Uint32 format = surface.format->format;
    const int pitch = surface.w * int(sizeof(Color));
    const bool is_direct =
        (format == SDL_PIXELFORMAT_RGB888 || format == SDL_PIXELFORMAT_ARGB8888) &&
        surface.pitch == pitch && !SDL_MUSTLOCK(&surface);
    if (is_direct) {
      return viewer_.draw({static_cast<Color*>(surface.pixels), surface.w, surface.h});
    }
    pixels_.resize(std::size_t(surface.w) * std::size_t(surface.h));
    viewer_.draw({pixels_.data(), surface.w, surface.h});
    if (SDL_LockSurface(&surface) != 0) return;
    SDL_ConvertPixels(surface.w, surface.h, SDL_PIXELFORMAT_RGB888, pixels_.data(), pitch, format,
                      surface.pixels, surface.pitch);
    SDL_UnlockSurface(&surface);
  }

  Viewer& viewer_;
  SDL_Window* window_ = nullptr;
  std::string title_;
  std::vector<Color> pixels_;  // where the system's have another form
  Uint32 turn_ = 0;            // when the files are looked at again
  bool is_open_ = true, needs_drawing_ = true;
};

}  // namespace

// Other drivers of SDL draw into the void, or on a console that others use.
bool start_windows() {
  const bool has_x11 = is_set("DISPLAY"), has_wayland = is_set("WAYLAND_DISPLAY");
  if (!has_x11 && !has_wayland) return false;
  SDL_SetMainReady();
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");  // an interrupt ends the process
  SDL_SetHint(SDL_HINT_VIDEODRIVER, !has_wayland ? "x11" : !has_x11 ? "wayland" : "x11,wayland");
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) return false;
  const std::string_view driver = SDL_GetCurrentVideoDriver();
  if (driver == "x11" || driver == "wayland") {
    SDL_EnableScreenSaver();
    return true;
  }
  SDL_Quit();
  return false;
}

void run_window(Viewer& viewer) {
  Window(viewer).run();
  SDL_Quit();
}
