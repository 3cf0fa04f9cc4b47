#include "ipc_claim.hpp"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tolvan::relay {
namespace {

static_assert(sizeof(ino_t) == 8 && sizeof(off_t) == 8,
              "stat() would fail on files whose numbers do not fit");

[[noreturn]] void fail(const std::string& what, int error) {
    throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

void make_folder(const std::filesystem::path& folder) {
    if (mkdir(folder.c_str(), S_IRWXU) == 0 || errno == EEXIST) return;
    if (errno != ENOENT) fail("cannot make folder " + folder.native(), errno);
    make_folder(folder.parent_path());
    if (mkdir(folder.c_str(), S_IRWXU) == -1 && errno != EEXIST)
        fail("cannot make folder " + folder.native(), errno);
}

std::string octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

// A link counts as no folder: whoever owns it could point it elsewhere later.
void check_folder(const std::filesystem::path& folder) {
    struct stat found {};
    if (lstat(folder.c_str(), &found) == -1) fail("cannot look at folder " + folder.native(), errno);
    const std::string text = "folder " + folder.native();
    if (!S_ISDIR(found.st_mode)) throw std::runtime_error(text + " is not a folder");
    if (found.st_uid != geteuid()) {
        throw std::runtime_error(text + " belongs to user " + std::to_string(found.st_uid) + " (mode " +
                                 octal(found.st_mode) + ")");
    }
    if ((found.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::runtime_error(text + " has mode " + octal(found.st_mode) +
                                 ", which lets others in; 0700 would not");
    }
}

const std::filesystem::path& in_private_folder(const std::filesystem::path& socket) {
    make_folder(socket.parent_path());
    check_folder(socket.parent_path());
    return socket;
}

descriptor lock_at(const std::filesystem::path& path) {
    descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (file.get() == -1) fail("cannot open lock file " + path.native(), errno);
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) return file;
    if (errno == EWOULDBLOCK)
        throw std::runtime_error("another hub holds it (lock file " + path.native() + ")");
    fail("cannot lock " + path.native(), errno);
}

bool is_still_at(const descriptor& file, const std::filesystem::path& path) {
    struct stat held {};
    struct stat named {};
    return fstat(file.get(), &held) == 0 && stat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

// The former holder removes the file while it holds the lock, perhaps after we opened it: then we have locked
// a file without a name, which stops nobody, and must begin again with the one that has the name now.
descriptor take_lock(const std::filesystem::path& path) {
    for (;;) {
        descriptor file = lock_at(path);
        if (is_still_at(file, path)) return file;
    }
}

}  // namespace

descriptor::descriptor(descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}

descriptor::~descriptor() {
    if (number != -1) close(number);
}

lock_file::lock_file(const std::filesystem::path& at) : path(at), held(take_lock(at)) {}

lock_file::~lock_file() {
    unlink(path.c_str());
}

ipc_claim::ipc_claim(const std::filesystem::path& at)
    : socket(in_private_folder(at)), lock(at.native() + ".lock") {
    struct stat found {};
    if (lstat(at.c_str(), &found) == 0 && !S_ISSOCK(found.st_mode)) {
        throw std::runtime_error("the path is taken by something that is not a socket");
    }
}

ipc_claim::~ipc_claim() {
    unlink(socket.c_str());
}

}  // namespace tolvan::relay
