// Files that are being written. A regular file is written beside the one that it replaces and put
// in its place when it is complete; what ends the work before that leaves the old file as it is.
#pragma once

#include <ka/img.h>

namespace ka {

struct ImagePath;

// Opens the stream of a handle for the file at `path` and sets handle->path and handle->unfinished.
// An existing file is not touched unless it is written directly. A pipe must have a reader. A file
// that standard output or standard error writes to is continued where that is, so that nothing in
// it is lost. Returns 0, or the system's error number.
[[nodiscard]] int open_output(img_file* handle, const ImagePath& path);

// Closes the stream, if there is one; puts a file that was written without an error in its place.
// Returns 1, or 0 with the handle's error. What is incomplete goes with img_discard.
int img_close_stream(img_file* handle);

// Removes what has been written, if it has a name that is ours to remove, and releases the handle's
// names, so that nothing is put in place. No other function removes an image file.
void img_discard(img_file* handle);
void img_release_names(img_file* handle);

}  // namespace ka
