// What the host calls when it loads and unloads the library.
#pragma once

extern "C" {

/// Publishes the tree, the first time that it is called; from the host's loading thread.
__attribute__((visibility("default"))) void ZDInitialize_vantrace() noexcept;

/// Does nothing: what was published and the services stay until the library is unmapped.
__attribute__((visibility("default"))) void ZDTerminate_vantrace() noexcept;
}
