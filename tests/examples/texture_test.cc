// The example of textures and lightmaps, as a newcomer runs it.
#include <ka/imgaccess.h>

#include "support.h"

namespace {

test::Outcome bake(const std::string& folder, const std::string& lightmap) {
  return test::run(TEXTURE_EXAMPLE, {.arguments = {folder, lightmap}});
}

// Tiles are (0.9, 0.7, 0.4) and (0.1, 0.2, 0.4), their mean is (0.5, 0.45, 0.4); the light falls
// from 1 in the middle to 1/2 at the sides.
TEST(TextureExample, BakesALightmap) {
  const test::Scratch scratch;
  const test::Outcome outcome = bake(scratch.path("."), "lightmap.tif");
  EXPECT_EQ(outcome.err, "");
  EXPECT_TRUE(test::matches(outcome.out,
                            "4 threads baked 262144 pixels: [1-9][0-9]* pages of 1028 in the "
                            "cache, 0 flushed\n"))
      << outcome.out;
  const test::Image lightmap = test::read_image(scratch.path("lightmap.tif"), IMG_TYPE_FILE);
  ASSERT_NE(lightmap, nullptr);
  EXPECT_EQ(lightmap->type, IMG_TYPE_RGBA);
  const struct {
    int x, y;
    float color[4];
  } places[] = {{255, 0, {0.1F, 0.2F, 0.4F, 1}},  {256, 0, {0.9F, 0.7F, 0.4F, 1}},
                {511, 0, {0.05F, 0.1F, 0.2F, 1}}, {127, 505, {0.375F, 0.3375F, 0.3F, 1}},
                {0, 0, {0.45F, 0.35F, 0.2F, 1}},  {511, 511, {0.25F, 0.225F, 0.2F, 1}}};
  for (const auto& [x, y, expected] : places) {
    float color[4];
    ka_img_get_color(lightmap.get(), color, x, y);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(color[i], expected[i], 2.0 / 255) << x << ' ' << y;
  }
}

}  // namespace
