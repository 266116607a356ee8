// SPDX-License-Identifier: GPL-3.0-or-later
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "core/device/device.h"

namespace brenlow {
namespace {

class TLinuxDevice final : public IDevice {
 public:
  TLinuxDevice(int handle, TFileIdentity identity, std::int64_t size, int sectorSize)
      : FHandle(handle), FIdentity(identity), FSize(size), FSectorSize(sectorSize) {}
  TLinuxDevice(const TLinuxDevice&) = delete;
  TLinuxDevice& operator=(const TLinuxDevice&) = delete;
  ~TLinuxDevice() override { ::close(FHandle); }

  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    if (position < 0 || position >= FSize) return 0;  // spares the call: damaged volumes ask for a lot out there
    std::size_t done = 0;
    while (done < buffer.size()) {
      // One call moves at most 0x7ffff000 bytes (pread(2)).
      const std::size_t wanted = std::min<std::size_t>(buffer.size() - done, 0x40000000);
      const ssize_t got =
          ::pread64(FHandle, buffer.data() + done, wanted, static_cast<off64_t>(position) + static_cast<off64_t>(done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      done += static_cast<std::size_t>(got);
    }
    return done;
  }
  std::int64_t Size() const override { return FSize; }
  int SectorSize() const override { return FSectorSize; }
  std::int64_t NextData(std::int64_t position) override {
    if (FSectorSize != 0 || position >= FSize) return position;
    // Holes of sparse files; where the file system knows none, all of it is data.
    const off64_t next = ::lseek64(FHandle, position, SEEK_DATA);
    return next >= 0 ? next : errno == ENXIO ? FSize : position;
  }
  int PlainFile() const override { return FSectorSize == 0 ? FHandle : -1; }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override { origins.push_back(FIdentity); }

 private:
  int FHandle;
  TFileIdentity FIdentity;
  std::int64_t FSize;
  int FSectorSize;
};

std::optional<TFileIdentity> ReadIdentity(int folder, const char* path, int flags) {
  struct statx status {};
  if (::statx(folder, path, flags, STATX_TYPE | STATX_INO | STATX_MNT_ID, &status) != 0) return std::nullopt;
  TFileIdentity identity{makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
  if (S_ISBLK(status.stx_mode)) identity = {0, makedev(status.stx_rdev_major, status.stx_rdev_minor)};
  if ((status.stx_mask & STATX_MNT_ID) != 0) identity.Mount = static_cast<int>(status.stx_mnt_id);
  return identity;
}

}  // namespace

std::optional<TFileIdentity> IdentityOf(int handle) { return ReadIdentity(handle, "", AT_EMPTY_PATH); }

std::optional<TFileIdentity> IdentityOf(const std::string& path) { return ReadIdentity(AT_FDCWD, path.c_str(), 0); }

TOpenedDevice OpenDevice(const std::string& path) {
  // O_NONBLOCK: opening a pipe or an empty drive must not wait; it has no effect on reads of
  // files and disks.
  const int handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (handle < 0) return {nullptr, errno};
  struct stat status {};
  if (::fstat(handle, &status) != 0) {
    const int error = errno;
    ::close(handle);
    return {nullptr, error};
  }
  const bool isFile = S_ISREG(status.st_mode);
  const TFileIdentity identity = IdentityOf(handle).value_or(isFile ? TFileIdentity{status.st_dev, status.st_ino}
                                                                    : TFileIdentity{0, status.st_rdev});
  if (isFile) return {std::make_unique<TLinuxDevice>(handle, identity, status.st_size, 0), 0};
  std::uint64_t size = 0;
  int sectorSize = 0;
  if (!S_ISBLK(status.st_mode) || ::ioctl(handle, BLKGETSIZE64, &size) != 0) {
    const int error = S_ISDIR(status.st_mode) ? EISDIR : S_ISBLK(status.st_mode) ? errno : ENOTBLK;
    ::close(handle);
    return {nullptr, error};
  }
  if (::ioctl(handle, BLKSSZGET, &sectorSize) != 0) sectorSize = 512;
  return {std::make_unique<TLinuxDevice>(handle, identity, static_cast<std::int64_t>(size), sectorSize), 0};
}

}  // namespace brenlow
