// Draws what a view shows of a source.
#pragma once

#include "canvas.h"
#include "source.h"
#include "view.h"

// The part of a canvas that belongs to a view: its top left corner, of the size of its window.
struct Drawing {
  const Source& source;
  const Look& look;
  const View& view;
  bool is_distance;  // shown in false colors
};

void draw_picture(const Drawing& drawing, const Canvas& canvas);

// Writes the samples into the pixels of a picture, where they are large enough.
void draw_samples(const Picture& picture, const View& view, const Canvas& canvas);
