#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include <dlfcn.h>
#include <unistd.h>

#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::vesk::v1 {

namespace {

constexpr const char* factory_symbol = "tolvan_vesk_v1_connection_impl";
using factory_function = void(connection::impl** result);

// The path of that file beside this library, or in the folder for backends there; the bare name, for the
// dynamic linker to search, when there is none.
std::string beside_this_library(const std::string& name) {
    Dl_info here = {};
    if (::dladdr(reinterpret_cast<void*>(&release_backends), &here) == 0) return name;
    const auto folder = std::filesystem::path(here.dli_fname).parent_path();
    for (const auto& path : {folder / name, folder / VESK_PLUGIN_FOLDER / name})
        if (std::filesystem::exists(path)) return path.string();
    return name;
}

std::string library_of(const std::string& backend) {
    return backend.find('/') != std::string::npos ? backend
                                                  : beside_this_library("libvesk-" + backend + ".so");
}

// Never unloaded again: a transport leaves vtables, deleters and callbacks all over the process.
factory_function* load_factory(const std::string& library) {
    void* const handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr)
        throw std::runtime_error("could not load vesk backend " + library + " for its " + factory_symbol +
                                 ": " + ::dlerror());
    void* const symbol = ::dlsym(handle, factory_symbol);
    if (symbol == nullptr)
        throw std::runtime_error("vesk backend " + library + " has no " + factory_symbol + ": " +
                                 ::dlerror());
    return reinterpret_cast<factory_function*>(symbol);
}

std::unique_ptr<connection::impl> make_transport(const std::string& backend) {
    connection::impl* made = nullptr;
    load_factory(library_of(backend))(&made);
    if (made == nullptr)
        throw std::runtime_error("vesk backend " + library_of(backend) + " made no connection");
    return std::unique_ptr<connection::impl>(made);
}

bool any_backend_installed() {
    return subscriber::backend::instance || publisher::backend::instance;
}

// Empties the slot without destroying what is in it: the place has no destructor.
template <typename Backend>
void abandon(std::shared_ptr<Backend>& slot) {
    alignas(std::shared_ptr<Backend>) static std::byte place[sizeof slot];
    std::construct_at(reinterpret_cast<std::shared_ptr<Backend>*>(place), std::move(slot));
}

void abandon_backends() {
    abandon(reqrep_server::backend::instance);
    abandon(reqrep_client::backend::instance);
    abandon(publisher::backend::instance);
    abandon(subscriber::backend::instance);
}

pid_t owner = 0;

// A forked child shares its parent's epoll set: a backend that unwatched its descriptors there would make the
// parent deaf.
void release_own_backends() {
    ::getpid() == owner ? release_backends() : abandon_backends();
}

// Handlers run in reverse order of registration, and a transport's own clean-up at exit is registered when
// its first socket is made. Registered only once a backend is there, this one therefore runs before it.
void release_backends_at_exit() {
    if (owner != 0 || !any_backend_installed()) return;
    if (std::atexit(release_own_backends) == 0) owner = ::getpid();
}

}  // namespace

connection::connection(conf_t conf, std::shared_ptr<event_loop_v1> loop)
    : transport(make_transport(conf.backend)) {
    struct at_end {
        ~at_end() { release_backends_at_exit(); }  // also when initialize throws half-way
    } const registration;
    if (!loop) throw std::invalid_argument("a vesk connection needs an event loop");
    transport->set_event_loop(std::move(loop));
    transport->initialize(std::move(conf));
}

connection::~connection() = default;
connection::impl::~impl() = default;

void connection::set_service_name(const std::string& name) {
    transport->set_service_name(name);
}

void release_backends() {
    reqrep_server::backend::instance.reset();
    reqrep_client::backend::instance.reset();
    publisher::backend::instance.reset();
    subscriber::backend::instance.reset();
}

}  // namespace tolvan::vesk::v1
