// What may help whoever reads a fatal message: one more line before it, as information.
#pragma once

#include <ka/img.h>

#include <string>

// Shows the line where information is shown anyway, and to a user who reads standard error on a
// terminal. Programs that read it see the usual lines only.
void explain(const std::string& text);

// Why an operation on a file has failed, if the error leaves it open: the driver's reason, or which
// formats are read.
void explain_failure(const img_file& file);

// The names of the formats that are written, or of those that are read, with blanks between them.
[[nodiscard]] std::string written_formats();
[[nodiscard]] std::string read_formats();
