#include <filesystem>
#include <stdexcept>

#include <dlfcn.h>

#include "http/http_answer.hpp"

namespace tolvan::vesk::tool {

http_answer* load_http_answer() {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    const auto library = program.parent_path() / VESK_PLUGINS_BESIDE / "libvesk-tool-http.so";
    void* const handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const symbol = handle == nullptr ? nullptr : ::dlsym(handle, "vesk_tool_http_answer");
    if (symbol == nullptr) throw std::runtime_error(std::string("could not load a library: ") + ::dlerror());
    return reinterpret_cast<http_answer*>(symbol);
}

}  // namespace tolvan::vesk::tool
