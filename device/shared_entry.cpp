// The shared library is the static core linked whole; this unit only gives the target a
// source of its own and stamps the build into the binary.
extern "C" __attribute__((visibility("hidden"))) const char veltrix_build_stamp[] =
    "libVELTRIX " __DATE__ " " __TIME__;
