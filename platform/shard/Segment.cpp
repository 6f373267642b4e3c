#include "platform/shard/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"

namespace Shard {
namespace {

[[noreturn]] void fail(const std::string& map, const std::string& what, int error = 0) {
    const std::string cause = error ? ": " + std::generic_category().message(error) : "";
    throw Vel::Error("shared map '" + map + "': " + what + cause);
}

struct flock lockOf(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

struct stat statusOf(int fd) {
    struct stat status {};
    VEL_ASSERT(fstat(fd, &status) == 0, "fstat(fd, &status) == 0");
    return status;
}

// Whether the name still stands for this file.
bool named(const std::string& name, int fd) {
    const Descriptor other(shm_open(name.c_str(), O_RDONLY, 0));
    if (!other) return false;
    const struct stat a = statusOf(fd), b = statusOf(other.get());
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool trusted(const struct stat& status, const Namespace& space) {
    return (status.st_uid == space.owner() || status.st_uid == 0) && S_ISREG(status.st_mode) &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

void lock(const std::string& map, int fd) {
    struct flock wanted = lockOf(F_WRLCK);
    if (fcntl(fd, F_OFD_SETLK, &wanted) == 0) return;
    if (errno != EAGAIN && errno != EACCES) fail(map, "cannot lock it", errno);
    int32_t pid = 0;
    if (pread(fd, &pid, sizeof pid, offsetof(Header, writerPid)) != sizeof pid) pid = 0;
    fail(map, "already has a writer (process " + std::to_string(pid) + ")");
}

// What the header says, copied; nothing when it is no segment that this code could work on.
std::optional<Geometry> geometryOf(int fd, uint64_t fileBytes, std::string& refusal) {
    alignas(Header) std::byte bytes[sizeof(Header)];
    if (fileBytes == 0) return std::nullopt;  // about to be made
    if (pread(fd, bytes, sizeof bytes, 0) != sizeof bytes) {
        refusal = "cut off within its header";
        return std::nullopt;
    }
    const auto& header = *reinterpret_cast<const Header*>(bytes);
    if (header.magic == 0) return std::nullopt;
    const Geometry& geometry = header.geometry;
    if (header.magic != magic) {
        refusal = "not a shared map";
    } else if (header.layoutVersion != layoutVersion) {
        refusal = "has layout version " + std::to_string(header.layoutVersion) + ", not " +
                  std::to_string(layoutVersion);
    } else if (!geometry.sound()) {
        refusal = "has an impossible geometry";
    } else if (geometry.totalBytes() != fileBytes) {
        refusal = "has " + std::to_string(fileBytes) + " bytes where its header needs " +
                  std::to_string(geometry.totalBytes());
    } else {
        return geometry;
    }
    return std::nullopt;
}

void* map(int fd, uint64_t bytes, bool writable) {
    const int access = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void* base = mmap(nullptr, bytes, access, MAP_SHARED | (writable ? MAP_POPULATE : 0), fd, 0);
    return base == MAP_FAILED ? nullptr : base;
}

std::string differences(const Shape& theirs, const Shape& ours) {
    const auto text = [](const Shape& s) {
        return std::to_string(s.keyBytes) + " bytes of key, " + std::to_string(s.valueBytes) +
               (s.list ? " bytes of list at most" : " bytes of value") + ", schema " +
               std::to_string(s.schema);
    };
    return "has " + text(theirs) + "; expected " + text(ours);
}

}  // namespace

Descriptor::~Descriptor() {
    if (fd_ >= 0) close(fd_);
}

Segment::Segment(std::string name, Descriptor fd, void* base, const Geometry& geometry, bool owned,
                 bool fresh)
    : name_(std::move(name)),
      fd_(std::move(fd)),
      bytes_(geometry.totalBytes()),
      base_(base),
      guard_(std::in_place, base, bytes_, owned),
      table_(static_cast<std::byte*>(base), geometry, static_cast<Header*>(base)->seed,
             guard_->hit()),
      owned_(owned),
      fresh_(fresh) {}

Segment::~Segment() {
    guard_.reset();
    munmap(base_, bytes_);
}

std::shared_ptr<Segment> Segment::own(const Namespace& space, const std::string& mapName,
                                      const Geometry& geometry) {
    const std::string name = space.segmentName(mapName);
    const uint64_t bytes = geometry.totalBytes();
    for (int attempt = 0; attempt < 16; ++attempt) {
        Descriptor fd(shm_open(name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, S_IRUSR | S_IWUSR));
        if (!fd) fail(mapName, "cannot open " + name, errno);
        if (!trusted(statusOf(fd.get()), space)) fail(mapName, name + " is somebody else's");
        lock(mapName, fd.get());
        if (!named(name, fd.get())) continue;  // unlinked before the lock was ours

        const auto fileBytes = static_cast<uint64_t>(statusOf(fd.get()).st_size);
        const bool fresh = fileBytes == 0;
        // Memory is claimed now: running out of it later would come as a SIGBUS.
        if (const int error = fresh ? posix_fallocate(fd.get(), 0, static_cast<off_t>(bytes)) : 0) {
            shm_unlink(name.c_str());
            fail(mapName, "cannot have " + std::to_string(bytes) + " bytes", error);
        }
        std::string refusal;
        if (!fresh && geometryOf(fd.get(), fileBytes, refusal) != geometry) {
            const Phase quiesced = Phase::quiesced;  // sends its readers to the one to come
            [[maybe_unused]] const auto told =
                pwrite(fd.get(), &quiesced, sizeof quiesced, offsetof(Header, phase));
            shm_unlink(name.c_str());
            continue;
        }
        return adopt(mapName, name, std::move(fd), geometry, fresh);
    }
    fail(mapName, "others keep replacing " + name);
}

std::shared_ptr<Segment> Segment::ownPrivate(const std::string& mapName,
                                             const Geometry& geometry) {
    Descriptor fd(memfd_create(mapName.c_str(), MFD_CLOEXEC));
    if (!fd) fail(mapName, "cannot have a private segment", errno);
    const auto bytes = static_cast<off_t>(geometry.totalBytes());
    if (const int error = posix_fallocate(fd.get(), 0, bytes))
        fail(mapName, "cannot have " + std::to_string(bytes) + " bytes", error);
    lock(mapName, fd.get());
    return adopt(mapName, {}, std::move(fd), geometry, true);
}

// Makes the writer of a segment whose lock is held and whose size is right.
std::shared_ptr<Segment> Segment::adopt(const std::string& mapName, std::string name, Descriptor fd,
                                        const Geometry& geometry, bool fresh) {
    void* base = map(fd.get(), geometry.totalBytes(), true);
    if (!base) fail(mapName, "cannot map it", errno);
    auto& header = *static_cast<Header*>(base);
    if (fresh) {
        header.layoutVersion = layoutVersion;
        header.geometry = geometry;
        const auto random = getrandom(&header.seed, sizeof header.seed, 0);
        VEL_ASSERT(random == sizeof header.seed, "random == sizeof header.seed");
    }
    header.writerPid = getpid();
    header.phase.store(static_cast<uint32_t>(Phase::mounting), std::memory_order_release);
    header.writers.fetch_add(1, std::memory_order_acq_rel);
    header.magic.store(magic, std::memory_order_release);
    std::shared_ptr<Segment> segment(
        new Segment(std::move(name), std::move(fd), base, geometry, true, fresh));
    segment->ring();
    return segment;
}

Descriptor Segment::find(const Namespace& space, const std::string& map) {
    const std::string name = space.segmentName(map);
    Descriptor fd(shm_open(name.c_str(), O_RDONLY | O_NOFOLLOW, 0));
    if (!fd && errno != ENOENT) fail(map, "cannot open " + name, errno);
    return fd;
}

std::shared_ptr<Segment> Segment::mount(const Namespace& space, Descriptor fd, const Shape& shape,
                                        std::string& refusal) {
    const struct stat status = statusOf(fd.get());
    refusal.clear();
    if (!trusted(status, space)) {
        refusal = "does not belong to the run directory's owner";
        return nullptr;
    }
    const auto geometry = geometryOf(fd.get(), static_cast<uint64_t>(status.st_size), refusal);
    if (!geometry) return nullptr;
    if (geometry->shape != shape) {
        refusal = differences(geometry->shape, shape);
        return nullptr;
    }
    void* base = map(fd.get(), geometry->totalBytes(), false);
    if (!base) {
        refusal = "cannot be mapped: " + std::generic_category().message(errno);
        return nullptr;
    }
    return std::shared_ptr<Segment>(new Segment({}, std::move(fd), base, *geometry, false, false));
}

Standing Segment::standing() const {
    const struct stat status = statusOf(fd_.get());
    if (cut() || static_cast<uint64_t>(status.st_size) != bytes_) return Standing::cut;
    return status.st_nlink == 0 ? Standing::unlinked : Standing::named;
}

bool Segment::writerAlive() const {
    if (owned_) return true;
    struct flock query = lockOf(F_RDLCK);
    return fcntl(fd_.get(), F_OFD_GETLK, &query) == 0 && query.l_type == F_WRLCK;
}

void Segment::phaseIs(Phase phase) const {
    table_.header().phase.store(static_cast<uint32_t>(phase), std::memory_order_release);
}

void Segment::ring() const {
    static constexpr uint64_t one = 1;
    [[maybe_unused]] const auto written =
        pwrite(fd_.get(), &one, sizeof one, offsetof(Header, bell));
}

void Segment::unlink() const {
    if (!name_.empty() && named(name_, fd_.get())) shm_unlink(name_.c_str());
}

void Segment::disown() {
    owned_ = false;
    struct flock lock = lockOf(F_UNLCK);
    fcntl(fd_.get(), F_OFD_SETLK, &lock);
}

}  // namespace Shard
