#include "ipc_claim.hpp"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>

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

mode_t folder_mode(ipc_group group) {
    return group ? S_IRWXU | S_IRGRP | S_IXGRP : S_IRWXU;
}

// The group comes first: nobody of another one is let in meanwhile.
void give_to(ipc_group group, const std::filesystem::path& path, mode_t mode) {
    if (group && lchown(path.c_str(), static_cast<uid_t>(-1), *group) == -1)
        fail("cannot give " + path.native() + " to group " + std::to_string(*group), errno);
    if (chmod(path.c_str(), mode) == -1) fail("cannot set the mode of " + path.native(), errno);
}

// False when the folder above is missing. A umask may have kept the owner out.
bool make_one_folder(const std::filesystem::path& folder, ipc_group group) {
    if (mkdir(folder.c_str(), S_IRWXU) == 0) {
        give_to(group, folder, folder_mode(group));
        return true;
    }
    if (errno != EEXIST && errno != ENOENT) fail("cannot make folder " + folder.native(), errno);
    return errno == EEXIST;
}

void make_folder(const std::filesystem::path& folder, ipc_group group) {
    if (make_one_folder(folder, group)) return;
    make_folder(folder.parent_path(), group);
    if (!make_one_folder(folder, group)) fail("cannot make folder " + folder.native(), ENOENT);
}

std::string octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

void check_mode(const std::string& text, const struct stat& found, ipc_group group) {
    const mode_t beyond_owner = found.st_mode & (S_IRWXG | S_IRWXO);
    if (beyond_owner == (folder_mode(group) & (S_IRWXG | S_IRWXO)) && (!group || found.st_gid == *group))
        return;
    if (!group) {
        throw std::runtime_error(text + " has mode " + octal(found.st_mode) +
                                 ", which lets others in; 0700 would not");
    }
    throw std::runtime_error(text + " has mode " + octal(found.st_mode) + " and group " +
                             std::to_string(found.st_gid) + "; it needs mode 0750 and group " +
                             std::to_string(*group));
}

// A link counts as no folder: whoever owns it could point it elsewhere later.
void check_folder(const std::filesystem::path& folder, ipc_group group) {
    struct stat found {};
    if (lstat(folder.c_str(), &found) == -1) fail("cannot look at folder " + folder.native(), errno);
    const std::string text = "folder " + folder.native();
    if (!S_ISDIR(found.st_mode)) throw std::runtime_error(text + " is not a folder");
    if (found.st_uid != geteuid()) {
        throw std::runtime_error(text + " belongs to user " + std::to_string(found.st_uid) + " (mode " +
                                 octal(found.st_mode) + ")");
    }
    check_mode(text, found, group);
}

const std::filesystem::path& in_private_folder(const std::filesystem::path& socket, ipc_group group) {
    make_folder(socket.parent_path(), group);
    check_folder(socket.parent_path(), group);
    return socket;
}

// The lock that keeps others out is flock's, because it does so within a process too. Only the other kind of
// lock tells who holds it, so that the holder takes one of those as well.
struct flock whole_file() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

// Within this process there is no other to be named, and one in another container has no pid here.
std::string holder_of(const wire::descriptor& file) {
    struct flock lock = whole_file();
    if (fcntl(file.get(), F_GETLK, &lock) == -1 || lock.l_type == F_UNLCK || lock.l_pid <= 0)
        return "another hub";
    return "another hub, process " + std::to_string(lock.l_pid) + ",";
}

// Not being named must not keep a hub from starting.
void be_named(const wire::descriptor& file) {
    struct flock lock = whole_file();
    static_cast<void>(fcntl(file.get(), F_SETLK, &lock));
}

wire::descriptor lock_at(const std::filesystem::path& path) {
    wire::descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (file.get() == -1) fail("cannot open lock file " + path.native(), errno);
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) return file;
    if (errno == EWOULDBLOCK)
        throw std::runtime_error(holder_of(file) + " holds it (lock file " + path.native() + ")");
    fail("cannot lock " + path.native(), errno);
}

bool is_still_at(const wire::descriptor& file, const std::filesystem::path& path) {
    struct stat held {};
    struct stat named {};
    return fstat(file.get(), &held) == 0 && stat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

// The former holder removes the file while it holds the lock, perhaps after we opened it: then we have locked
// a file without a name, which stops nobody, and must begin again with the one that has the name now.
wire::descriptor take_lock(const std::filesystem::path& path) {
    for (;;) {
        wire::descriptor file = lock_at(path);
        if (!is_still_at(file, path)) continue;
        if (fchmod(file.get(), S_IRUSR | S_IWUSR) == -1)
            fail("cannot set the mode of " + path.native(), errno);
        be_named(file);
        return file;
    }
}

}  // namespace

lock_file::lock_file(const std::filesystem::path& at) : path(at), held(take_lock(at)) {}

lock_file::~lock_file() {
    unlink(path.c_str());
}

ipc_claim::ipc_claim(const std::filesystem::path& at, ipc_group members)
    : socket(in_private_folder(at, members)), group(members), lock(at.native() + ".lock") {
    struct stat found {};
    if (lstat(at.c_str(), &found) == 0 && !S_ISSOCK(found.st_mode)) {
        throw std::runtime_error("the path is taken by something that is not a socket");
    }
}

void ipc_claim::admit() const {
    give_to(group, socket, group ? S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP : S_IRUSR | S_IWUSR);
}

ipc_claim::~ipc_claim() {
    unlink(socket.c_str());
}

}  // namespace tolvan::relay
