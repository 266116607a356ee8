// SPDX-License-Identifier: GPL-3.0-or-later
// Records of an NTFS log: any bytes as its pages, collected, linked and replayed.
#include <cstdint>
#include <cstdlib>

#include "fs/ntfs/ntfs_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brenlow;
  using namespace brenlow::ntfs;
  if (size > (1 << 16)) return 0;
  constexpr int recordSize = 1024;
  TByteDynArray pages(data, data + size);
  TNTFSLogInfo info;
  ReadRestartPage(pages, 0, info);
  FixLogPages(pages, info.PageSize);
  TNTFSLogContent content;
  const std::size_t end = CollectLogRecords(pages, 0, 0, info, recordSize, content);
  if (end > size + recordSize + 0x100) std::abort();
  LinkLogImages(content.Images);
  ApplyLogRecords(content, recordSize);
  for (const TNTFSLogImage& image : content.Images) {
    if (image.Image.size() > 4 * recordSize) std::abort();
  }
  return 0;
}
