// For the test programs that prove that the module goes: what it keeps for the life of the process
// cannot be found again then (leak_check_pinned.cpp), so a leak checker would report it. Leaks of
// the same code are looked for by the other programs of this folder.
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
