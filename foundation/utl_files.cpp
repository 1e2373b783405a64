// File utilities: questions about files, and writing an output so that the
// file it replaces is never lost: a temporary file beside it, renamed over
// it only when complete.
#include <pxf/utl.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/alloc.h"

namespace {

// Temporary files a signal handler may have to remove.  The names live in
// fixed slots so that the handler reads no heap memory and takes no lock.
// A slot is 0 free, 1 being filled, 2 live.
struct Slot {
    std::atomic<int> state;
    char name[PATH_MAX];
};
constexpr int kSlots = 64;
Slot slots[kSlots];

int register_tmp(const char *name) {
    if (std::strlen(name) >= PATH_MAX) return -1;
    for (int i = 0; i < kSlots; ++i) {
        int expected = 0;
        if (!slots[i].state.compare_exchange_strong(expected, 1)) continue;
        std::strcpy(slots[i].name, name);
        slots[i].state.store(2);
        return i;
    }
    return -1;  // more outputs than slots: still safe, only not removed by a signal
}

void unregister_tmp(int slot) {
    if (slot >= 0) slots[slot].state.store(0);
}

struct Stat {
    struct stat st;
    bool ok;
    explicit Stat(const char *path) { ok = path && *path && ::stat(path, &st) == 0; }
    bool regular() const { return ok && S_ISREG(st.st_mode); }
};

// Six characters that differ between calls, processes and threads.
void random_suffix(char out[7]) {
    static std::atomic<unsigned long> counter{0};
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    unsigned long long v = (unsigned long long)now.tv_nsec * 2654435761ull ^ (unsigned long long)getpid() << 20 ^
                           (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull) ^ (unsigned long long)now.tv_sec;
    const char *digits = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (int i = 0; i < 6; ++i) {
        out[i] = digits[v % 62];
        v /= 62;
    }
    out[6] = '\0';
}

}  // namespace

struct UTL_OUTPUT {
    std::FILE *stream;
    int slot;          // cleanup slot, -1 when none
    bool temporary;
    char *target;      // the file to replace (temporary outputs)
    char name[PATH_MAX];
};

extern "C" {

int UTL_file_exists(const char *path) { return Stat(path).ok ? 1 : 0; }

int UTL_file_readable(const char *path) { return Stat(path).regular() && access(path, R_OK) == 0 ? 1 : 0; }

int64_t UTL_file_size(const char *path) {
    Stat s(path);
    return s.regular() ? int64_t(s.st.st_size) : -1;
}

int UTL_same_file(const char *a, const char *b) {
    Stat x(a), y(b);
    return x.ok && y.ok && x.st.st_dev == y.st.st_dev && x.st.st_ino == y.st.st_ino ? 1 : 0;
}

int UTL_tmp_file(const char *dir, const char *base, char *name, size_t size) {
    if (!base || !*base || std::strchr(base, '/') || !name || !size) {
        errno = EINVAL;
        return -1;
    }
    if (!dir || !*dir) dir = ".";
    for (int attempt = 0; attempt < 100; ++attempt) {
        char suffix[7];
        random_suffix(suffix);
        int n = std::snprintf(name, size, "%s%s.~%s.%s", dir, dir[std::strlen(dir) - 1] == '/' ? "" : "/", suffix,
                              base);
        if (n < 0 || std::size_t(n) >= size) {
            errno = ENAMETOOLONG;
            return -1;
        }
        int fd = open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    errno = EEXIST;
    return -1;
}

UTL_OUTPUT *UTL_output_open(const char *path) {
    if (!path || !*path) {
        errno = EINVAL;
        return nullptr;
    }
    auto *out = static_cast<UTL_OUTPUT *>(pxf::heap_alloc(sizeof(UTL_OUTPUT)));
    if (!out) {
        errno = ENOMEM;
        return nullptr;
    }
    out->stream = nullptr;
    out->slot = -1;
    out->target = nullptr;
    out->name[0] = '\0';
    Stat existing(path);
    out->temporary = !existing.ok || existing.regular();
    int fd = -1;
    if (!out->temporary) {
        // A device, pipe or terminal: written as it stands, never truncated.
        if (std::strlen(path) >= sizeof out->name) errno = ENAMETOOLONG;
        else if ((fd = open(path, O_WRONLY | O_CLOEXEC)) >= 0) std::strcpy(out->name, path);
    } else {
        // Replace the file a link points at, not the link.
        char *resolved = existing.ok ? realpath(path, nullptr) : nullptr;
        const char *target = resolved ? resolved : path;
        std::size_t length = std::strlen(target);
        out->target = static_cast<char *>(pxf::heap_alloc(length + 1));
        if (out->target) {
            std::memcpy(out->target, target, length + 1);
            const char *slash = std::strrchr(out->target, '/');
            // A relative directory is spelled from "./", so that nothing that
            // looks names up in a search directory takes the temporary elsewhere.
            char dir[PATH_MAX];
            std::size_t dir_length = slash ? std::size_t(slash - out->target) + 1 : 0;
            std::size_t lead = out->target[0] == '/' || std::strncmp(out->target, "./", 2) == 0 ? 0 : 2;
            if (lead + dir_length < sizeof dir) {
                std::memcpy(dir, "./", lead);
                std::memcpy(dir + lead, out->target, dir_length);
                dir[lead + dir_length] = '\0';
                fd = UTL_tmp_file(dir, slash ? slash + 1 : out->target, out->name, sizeof out->name);
                if (fd >= 0 && existing.ok) (void)fchmod(fd, existing.st.st_mode & 07777);
                if (fd >= 0) out->slot = register_tmp(out->name);
            } else {
                errno = ENAMETOOLONG;
            }
        } else {
            errno = ENOMEM;
        }
        std::free(resolved);  // realpath allocates with malloc
    }
    if (fd >= 0 && !(out->stream = fdopen(fd, out->temporary ? "w+b" : "wb"))) {
        int error = errno;
        close(fd);
        if (out->temporary) unlink(out->name);
        errno = error;
    }
    if (!out->stream) {
        int error = errno;
        unregister_tmp(out->slot);
        pxf::heap_free(out->target);
        pxf::heap_free(out);
        errno = error;
        return nullptr;
    }
    return out;
}

FILE *UTL_output_stream(UTL_OUTPUT *out) { return out ? out->stream : nullptr; }

const char *UTL_output_name(const UTL_OUTPUT *out) { return out ? out->name : nullptr; }

int UTL_output_is_temporary(const UTL_OUTPUT *out) { return out && out->temporary ? 1 : 0; }

void UTL_output_abandon(UTL_OUTPUT *out) {
    if (!out) return;
    int error = errno;
    if (out->stream) std::fclose(out->stream);
    if (out->temporary) unlink(out->name);
    unregister_tmp(out->slot);
    pxf::heap_free(out->target);
    pxf::heap_free(out);
    errno = error;
}

int UTL_output_commit(UTL_OUTPUT *out) {
    if (!out) {
        errno = EINVAL;
        return -1;
    }
    errno = 0;
    bool ok = std::fflush(out->stream) == 0 && !std::ferror(out->stream);
    int error = errno ? errno : EIO;
    std::FILE *stream = out->stream;
    out->stream = nullptr;
    if (std::fclose(stream) != 0 && ok) {
        ok = false;
        error = errno ? errno : EIO;
    }
    if (ok && out->temporary && std::rename(out->name, out->target) != 0) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        UTL_output_abandon(out);
        errno = error;
        return -1;
    }
    unregister_tmp(out->slot);
    pxf::heap_free(out->target);
    pxf::heap_free(out);
    return 0;
}

void UTL_tmp_cleanup(void) {
    int error = errno;
    for (Slot &slot : slots)
        if (slot.state.load() == 2) unlink(slot.name);
    errno = error;
}

int UTL_file_copy(const char *from, const char *to) {
    if (UTL_same_file(from, to)) {
        errno = EINVAL;
        return -1;
    }
    int fd = from ? open(from, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        if (!from) errno = EINVAL;
        return -1;
    }
    UTL_OUTPUT *out = UTL_output_open(to);
    if (!out) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    char buffer[1 << 15];
    for (;;) {
        errno = 0;
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) break;
        if (n < 0 || std::fwrite(buffer, 1, std::size_t(n), out->stream) != std::size_t(n)) {
            int error = errno ? errno : EIO;
            close(fd);
            UTL_output_abandon(out);
            errno = error;
            return -1;
        }
    }
    close(fd);
    return UTL_output_commit(out);
}

}  // extern "C"
