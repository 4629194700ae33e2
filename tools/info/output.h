// The two forms in which vel_info shows what it has found.
#pragma once

#include <vector>

#include "inspect.h"

// Text for people: one file, with an empty line before all but the first. Nothing of a file that
// could not be opened.
void print_text(const FileInfo& info, bool is_first);

// One JSON document for all files: docs/vel_info.schema.json.
void print_json(const std::vector<FileInfo>& infos);
