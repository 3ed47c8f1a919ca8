// For the test program that shows that the module goes. What that keeps for the life of the process
// cannot be found again once it is unmapped (leak_check_pinned.cpp), so a leak checker would report
// it. The tests of the folders look for leaks of the same code.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LEAKS_ARE_CHECKED 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define LEAKS_ARE_CHECKED 1
#endif

#if defined(LEAKS_ARE_CHECKED)
// Asked for by the sanitizer's runtime, whose names these are.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "detect_leaks=0";
}
#endif
