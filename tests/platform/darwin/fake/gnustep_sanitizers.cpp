/// What the sanitizers pass over: they do not see into GNUstep's libraries, which keep what they make
/// at the start for ever and take their own locks in either order. An Objective-C object that the
/// seam forgot would look the same and is not told.

extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
  return "leak:libgnustep-base\nleak:libobjc\n";
}

extern "C" const char* __tsan_default_suppressions() {
  return "deadlock:libgnustep-base\ndeadlock:libobjc\nrace:libgnustep-base\nrace:libobjc\n";
}
