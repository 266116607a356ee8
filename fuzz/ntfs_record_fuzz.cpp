// SPDX-License-Identifier: GPL-3.0-or-later
// Inside a file record: any bytes as a record, its run lists and its attribute list.
#include <cstdint>
#include <cstdlib>

#include "fs/ntfs/ntfs_record.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brenlow;
  using namespace brenlow::ntfs;
  if (size > 8192) return 0;
  TByteDynArray record(data, data + size);
  ApplyFixups(record);
  constexpr std::int64_t volume = 1'000'000;
  int attributes = 0;
  for (TAttributeWalk walk(record); walk.Next();) {
    if (++attributes > MostAttributes) std::abort();
    std::int64_t vcn = 0;
    for (const TRun& run : walk->Runs(volume)) {
      if (run.Vcn != vcn || run.Count <= 0 || run.Lcn < -1) std::abort();
      vcn += run.Count;
    }
    walk->Name();
    walk->IsDefaultDataStream();
    TInt64DynArray records;
    AddListedRecords(walk->Value(), records);
    if (records.size() > MostEntries) std::abort();
  }
  TInt64DynArray records;
  AddListedRecords(record, records);
  return 0;
}
