#include "tests/budget/budget.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

/// callgrind knows it by this name.
extern "C" [[gnu::noinline]] void budget_operation(void (*operation)(), long count) {
  for (long i = 0; i < count; ++i) operation();
}

int budget::run(int argc, char** argv, std::initializer_list<entry> entries) {
  const long count = argc == 3 ? std::atol(argv[2]) : 0;
  for (const entry& e : entries) {
    if (count <= 0 || std::strcmp(e.name, argv[1]) != 0) continue;
    e.operation();
    budget_operation(e.operation, count);
    return 0;
  }
  std::fprintf(stderr, "usage: %s ENTRY COUNT\n", argv[0]);
  return 2;
}
