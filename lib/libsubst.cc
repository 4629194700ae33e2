// Path substitution. There are no rules yet: a name stands for itself.
#include <cstdio>

#include <ka/detail/scope.h>
#include <ka/message.h>
#include <ka/subst.h>

char* ka_string_substitute(char* buffer, const char* name, std::size_t size) {
  const ka::ModuleScope scope(KA_LIB);
  if (std::snprintf(buffer, size, "%s", name) >= int(size)) {
    ka_nerror(38, "path substitution: path too long: %s", name);
  }
  return buffer;
}
