/// Read by the leak sanitizer: GNUstep's libraries keep what they make at the start for ever. An
/// Objective-C object that the seam forgot would look the same and is not told.
extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions() {
  return "leak:libgnustep-base\nleak:libobjc\n";
}
