// Assertions of what the library's own callers get wrong. They stay on in every build: a check of a
// pointer costs nothing beside what follows it. Contents of files are never asserted.
#pragma once

#include <ka/message.h>

#define KA_ASSERT(expression) \
  ((expression) ? static_cast<void>(0) : __assert(#expression, __FILE__, __LINE__))
