// A scene to have something to write: three shaded spheres on a checker floor.
#pragma once

#include <array>

// Where the scene is looked up: x from -1 at the left to 1 at the right, y in the same unit, 0 in
// the middle and growing upwards.
struct ViewPoint {
  float x, y;
};

// Red, green and blue of what is seen there, linear, each at least 0. `moved` puts one of the
// spheres elsewhere.
std::array<float, 3> scene_color(ViewPoint point, bool moved);
