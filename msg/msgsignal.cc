// Signals: the master process ends with a message that names the signal, its children pass signals
// on to it.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include <ka/detail/scope.h>
#include <ka/message.h>
#include <ka/msg.h>

namespace {

// What ends a process, and what the fatal message calls it.
struct Signal {
  int number;
  const char* name;
};
constexpr std::array<Signal, 10> kCaught = {{
    {SIGHUP, "unknown"},  // not fatal: asks the work in progress to stop
    {SIGINT, "interrupt"},
    {SIGQUIT, "quit"},
    {SIGILL, "illegal instruction"},
    {SIGTRAP, "unknown"},
    {SIGABRT, "unknown"},
    {SIGBUS, "bus error"},
    {SIGFPE, "floating point exception"},
    {SIGSEGV, "segmentation violation"},
    {SIGTERM, "software termination signal"},
}};

std::atomic<pid_t> master_process{0};

const char* name_of(int number) {
  for (const Signal& caught : kCaught) {
    if (caught.number == number) return caught.name;
  }
  return "unknown";
}

// A thread that goes on afterwards finds its errno and its system calls as they were.
void handle_signal(int number) {
  const int saved_errno = errno;
  if (getpid() != master_process) {
    kill(master_process, number);
    errno = saved_errno;
    return;
  }
  if (number == SIGPIPE) return;
  const ka::ModuleScope scope(KA_MSG);
  ka_debug("received signal %d", number);
  if (number == SIGHUP) return;  // a stand-alone process has no parallel work to abort
  ka_nfatal(501, "%s %d (%s) ", "interrupted by signal", number, name_of(number));
}

bool install(int number, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  return sigaction(number, &action, nullptr) == 0;
}

}  // namespace

void ka_msg_sigset_init(int no_catch) {
  const ka::ModuleScope scope(KA_MSG);
  master_process = getpid();
  if (!install(SIGPIPE, SIG_IGN)) ka_nerror(502, "sigaction failed");
  if (no_catch) {
    ka_debug("not catching any exceptions");
    return;
  }
  for (const Signal& caught : kCaught) {
    if (!install(caught.number, handle_signal)) ka_nerror(502, "sigaction failed");
  }
}
