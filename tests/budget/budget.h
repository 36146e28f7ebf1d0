#pragma once

/// Operations whose instructions are counted. A program has the entries of one area:
///
///     budget_text ENTRY COUNT     runs the operation once, then COUNT times to be counted
///
/// budget.py runs it under callgrind, which counts only inside `budget_operation` and only the
/// thread that called it.

#include <initializer_list>

namespace budget {

struct entry {
  const char* name;
  void (*operation)();
};

/// The whole of `main`.
int run(int argc, char** argv, std::initializer_list<entry> entries);

/// Makes the compiler believe that the value is used.
template <class T>
void keep(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

}  // namespace budget
