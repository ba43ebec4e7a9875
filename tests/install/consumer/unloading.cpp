// Loads a library as a plugin does, unloads it, and expects it to stay: what it handed to Boost.Log
// may be used later.

#include <dlfcn.h>

int main(int /*argc*/, char** argv) {
    const char* const library = argv[1];
    void* const loaded = ::dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (loaded == nullptr || ::dlclose(loaded) != 0) {
        return 1;
    }
    return ::dlopen(library, RTLD_NOW | RTLD_NOLOAD) == nullptr ? 1 : 0;
}
