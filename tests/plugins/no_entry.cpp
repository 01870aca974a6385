// A library that is no plug-in: it has no entry point of its own name.
extern "C" __attribute__((visibility("default"))) void ZDInitialize_another() {}
