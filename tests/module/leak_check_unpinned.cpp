// For the test program that checks that the module is unmapped. A leak checker would then report
// the memory that it never frees (leak_check_pinned.cpp). The tests of the folders look for leaks
// of the same code.
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
