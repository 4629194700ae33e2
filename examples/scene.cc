#include "scene.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>

namespace {

struct Vector {
  float x, y, z;  // to the right, up, towards the camera
};
Vector operator+(Vector a, Vector b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
Vector operator-(Vector a, Vector b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vector operator*(float s, Vector a) { return {s * a.x, s * a.y, s * a.z}; }
float dot(Vector a, Vector b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vector unit(Vector a) { return (1 / std::sqrt(dot(a, a))) * a; }

struct Ray {
  Vector origin, direction;  // the direction has length 1
};

struct Sphere {
  Vector center;
  float radius;
  Vector color;
};

struct Hit {
  float distance = std::numeric_limits<float>::infinity();
  Vector normal{};
  Vector color{};
};

constexpr std::array<Sphere, 3> kSpheres = {{{{-1.7F, 0.8F, -0.5F}, 0.8F, {0.8F, 0.15F, 0.1F}},
                                             {{0.1F, 1.1F, -1.6F}, 1.1F, {0.1F, 0.3F, 0.75F}},
                                             {{1.6F, 0.6F, 0.3F}, 0.6F, {0.9F, 0.65F, 0.1F}}}};
constexpr Vector kStep = {-0.5F, 0, 0.4F};  // by which the last sphere moves
constexpr Vector kCamera = {0, 1.6F, 6};
constexpr Vector kToLight = {-0.48F, 0.8F, 0.36F};
constexpr float kAmbient = 0.15F;
constexpr float kNear = 1e-3F;  // nothing is hit so close to where a ray starts

float sphere_distance(const Sphere& sphere, const Ray& ray) {
  const Vector to_center = sphere.center - ray.origin;
  const float along = dot(to_center, ray.direction);
  const float half_chord_squared =
      sphere.radius * sphere.radius - dot(to_center, to_center) + along * along;
  return half_chord_squared > 0 ? along - std::sqrt(half_chord_squared) : -1;
}

Vector checker(Vector point) {
  const bool dark = std::lround(std::floor(point.x) + std::floor(point.z)) % 2 == 0;
  return dark ? Vector{0.12F, 0.13F, 0.15F} : Vector{0.7F, 0.7F, 0.65F};
}

Hit first_hit(std::span<const Sphere> spheres, const Ray& ray) {
  Hit hit;
  const float floor = -ray.origin.y / ray.direction.y;
  if (floor > kNear) {
    hit = {floor, {0, 1, 0}, checker(ray.origin + floor * ray.direction)};
  }
  for (const Sphere& sphere : spheres) {
    const float distance = sphere_distance(sphere, ray);
    if (distance < kNear || distance > hit.distance) continue;
    const Vector point = ray.origin + distance * ray.direction;
    hit = {distance, unit(point - sphere.center), sphere.color};
  }
  return hit;
}

Vector shade(std::span<const Sphere> spheres, const Ray& ray) {
  const float height = std::max(ray.direction.y, 0.0F);
  const Vector sky = Vector{0.75F, 0.82F, 0.9F} - height * Vector{0.9F, 0.7F, 0.4F};
  const Hit hit = first_hit(spheres, ray);
  if (std::isinf(hit.distance)) return sky;
  const Ray to_light = {ray.origin + hit.distance * ray.direction, kToLight};
  const bool lit = std::isinf(first_hit(spheres, to_light).distance);
  const float light = lit ? std::max(dot(hit.normal, kToLight), 0.0F) : 0.0F;
  const float haze = 1 - std::exp(-0.012F * hit.distance);
  return (1 - haze) * ((kAmbient + light) * hit.color) + haze * sky;
}

}  // namespace

std::array<float, 3> scene_color(ViewPoint point, bool moved) {
  auto spheres = kSpheres;
  if (moved) spheres.back().center = spheres.back().center + kStep;
  const Vector color = shade(spheres, {kCamera, unit({point.x, point.y - 0.15F, -1.9F})});
  return {color.x, color.y, color.z};
}
