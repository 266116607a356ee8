// SPDX-License-Identifier: GPL-3.0-or-later
// Format facts: Microsoft, [MS-VHDX] 1.0, section 2.3 "Log".
#include "core/images/vhdx_log.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "core/images/virtual_disk.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::int64_t Sector = 4096;          // of the log
constexpr std::int64_t LongestLog = 64 << 20;  // bytes
constexpr std::size_t EntryHead = 64;
constexpr std::size_t DescriptorSize = 32;
constexpr std::size_t MostZeros = 65536;
constexpr std::int64_t FurthestBeyond = 1 << 30;  // bytes after the file's end that a log may write to
constexpr std::int64_t HashesOfLog = 4;           // bytes hashed in all, as a multiple of the log's length
constexpr std::size_t WalksOfLog = 4;             // steps from entry to entry in all, as a multiple of their count

/// Places of the file that the log has other bytes for.
class TReplayedFile final : public IDevice {
 public:
  explicit TReplayedFile(std::unique_ptr<IDevice> file) : FFile(std::move(file)), FSize(FFile->Size()) {}

  /// What was written last counts. False for a place that is far outside of the file.
  bool Put(std::int64_t place, TByteDynArray bytes) {
    if (place > FFile->Size() + FurthestBeyond) return false;
    FSize = std::max(FSize, place + static_cast<std::int64_t>(bytes.size()));
    FSectors[place] = std::move(bytes);
    return true;
  }
  /// False for more of them than a log of a real disk has.
  bool PutZeros(std::int64_t place, std::int64_t length) {
    if (FZeros.size() >= MostZeros || place + length > FFile->Size() + FurthestBeyond) return false;
    FSize = std::max(FSize, place + length);
    FSectors.erase(FSectors.lower_bound(place), FSectors.lower_bound(place + length));
    std::int64_t end = place + length;
    auto range = FZeros.upper_bound(place);
    if (range != FZeros.begin() && std::prev(range)->second >= place) --range;
    while (range != FZeros.end() && range->first <= end) {  // those that it touches become one with it
      place = std::min(place, range->first);
      end = std::max(end, range->second);
      range = FZeros.erase(range);
    }
    FZeros[place] = end;
    return true;
  }

  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    if (position < 0 || position >= FSize) return 0;
    buffer = buffer.first(
        static_cast<std::size_t>(std::min<std::int64_t>(static_cast<std::int64_t>(buffer.size()), FSize - position)));
    std::size_t got = FFile->Read(position, buffer);
    const std::int64_t inFile = std::max<std::int64_t>(FFile->Size() - position, 0);
    if (static_cast<std::int64_t>(got) < std::min(inFile, static_cast<std::int64_t>(buffer.size()))) return got;
    std::memset(buffer.data() + got, 0, buffer.size() - got);
    const std::int64_t end = position + static_cast<std::int64_t>(buffer.size());
    auto zeros = FZeros.upper_bound(position);
    if (zeros != FZeros.begin()) --zeros;
    for (; zeros != FZeros.end() && zeros->first < end; ++zeros) {
      const std::int64_t from = std::max(zeros->first, position);
      const std::int64_t until = std::min(zeros->second, end);
      if (from < until) std::memset(buffer.data() + (from - position), 0, static_cast<std::size_t>(until - from));
    }
    for (auto sector = FSectors.lower_bound(position - Sector + 1); sector != FSectors.end() && sector->first < end;
         ++sector) {
      const std::int64_t from = std::max(sector->first, position);
      const std::int64_t until = std::min(sector->first + Sector, end);
      if (from < until) {
        std::memcpy(buffer.data() + (from - position), sector->second.data() + (from - sector->first),
                    static_cast<std::size_t>(until - from));
      }
    }
    return buffer.size();
  }
  std::int64_t Size() const override { return FSize; }
  int SectorSize() const override { return 0; }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override { FFile->AddOrigins(origins); }

 private:
  std::unique_ptr<IDevice> FFile;
  std::int64_t FSize;
  std::map<std::int64_t, std::int64_t> FZeros;     // from start to end, apart from each other; below the sectors
  std::map<std::int64_t, TByteDynArray> FSectors;  // of 4096 bytes, by place
};

struct TEntry {
  std::int64_t Start = 0;  // in the log
  std::int64_t Length = 0;
  std::int64_t Tail = 0;  // where the sequence begins that this entry ends
  std::uint64_t Number = 0;
  std::uint32_t Descriptors = 0;
};

/// The log as one ring of bytes.
class TLog {
 public:
  TLog(TByteDynArray bytes, std::span<const std::uint8_t> guid)
      : FBytes(std::move(bytes)), FGuid(guid), FHashesLeft(HashesOfLog * static_cast<std::int64_t>(FBytes.size())) {}

  /// All entries that are whole.
  void Scan() {
    for (std::int64_t at = 0; at + Sector <= Length(); at += Sector) {
      if (const auto entry = EntryAt(at)) FEntries.emplace(at, *entry);
    }
  }
  bool HasEntries() const { return !FEntries.empty(); }

  /// The entries to be carried out, in order; empty when no sequence is whole. The newest entry that ends one
  /// counts.
  std::vector<TEntry> ActiveSequence() const {
    std::vector<const TEntry*> heads;
    for (const auto& [start, entry] : FEntries) heads.push_back(&entry);
    std::stable_sort(heads.begin(), heads.end(),
                     [](const TEntry* a, const TEntry* b) { return a->Number > b->Number; });
    std::map<std::int64_t, std::uint64_t> lasts;  // by the start of an entry: how far the numbers go on from it
    for (const TEntry* entry : heads) {
      const TEntry* next = NextOf(*entry);
      lasts[entry->Start] = next == nullptr ? entry->Number : lasts[next->Start];
    }
    std::size_t stepsLeft = WalksOfLog * heads.size();
    for (const TEntry* head : heads) {
      const auto tail = FEntries.find(head->Tail);
      if (tail == FEntries.end() || tail->second.Number > head->Number || head->Number > lasts[head->Tail]) continue;
      std::vector<TEntry> sequence = SequenceOf(tail->second, *head, stepsLeft);
      if (!sequence.empty()) return sequence;
    }
    return {};
  }

  /// False when an entry contradicts itself.
  bool Apply(const TEntry& entry, TReplayedFile& file) const {
    const TByteDynArray bytes = Ring(entry.Start, entry.Length);
    const std::size_t headSize = EntryHead + std::size_t{entry.Descriptors} * DescriptorSize;
    std::size_t data = (headSize + Sector - 1) / Sector * Sector;
    for (std::size_t i = 0; i < entry.Descriptors; ++i) {
      const auto descriptor = std::span(bytes).subspan(EntryHead + i * DescriptorSize, DescriptorSize);
      const std::uint64_t place = ReadLe64(descriptor, 16);
      if (ReadLe64(descriptor, 24) != entry.Number || place > LargestVirtualDisk || place % Sector != 0) return false;
      if (IsAt(descriptor, 0, "zero")) {
        const std::uint64_t length = ReadLe64(descriptor, 8);
        if (length > LargestVirtualDisk || length % Sector != 0) return false;
        if (!file.PutZeros(static_cast<std::int64_t>(place), static_cast<std::int64_t>(length))) return false;
        continue;
      }
      const bool fits = IsAt(descriptor, 0, "desc") && data + Sector <= bytes.size() && IsAt(bytes, data, "data");
      if (!fits || SectorNumber(bytes, data) != entry.Number) return false;
      TByteDynArray sector(bytes.begin() + static_cast<std::ptrdiff_t>(data),
                           bytes.begin() + static_cast<std::ptrdiff_t>(data + Sector));
      std::copy_n(descriptor.begin() + 8, 8, sector.begin());  // what the marks of the log took the place of
      std::copy_n(descriptor.begin() + 4, 4, sector.end() - 4);
      if (!file.Put(static_cast<std::int64_t>(place), std::move(sector))) return false;
      data += Sector;
    }
    return true;
  }

 private:
  std::int64_t Length() const { return static_cast<std::int64_t>(FBytes.size()); }

  static std::uint64_t SectorNumber(std::span<const std::uint8_t> bytes, std::size_t at) {
    return (std::uint64_t{ReadLe32(bytes, at + 4)} << 32) | ReadLe32(bytes, at + Sector - 4);
  }

  TByteDynArray Ring(std::int64_t start, std::int64_t length) const {
    const std::int64_t first = std::min(length, Length() - start);
    TByteDynArray bytes(FBytes.begin() + start, FBytes.begin() + start + first);
    bytes.insert(bytes.end(), FBytes.begin(), FBytes.begin() + (length - first));
    return bytes;
  }

  std::optional<TEntry> EntryAt(std::int64_t at) {
    const auto head = std::span(FBytes).subspan(static_cast<std::size_t>(at), EntryHead);
    if (!IsAt(head, 0, "loge") || !std::equal(FGuid.begin(), FGuid.end(), head.begin() + 32)) return std::nullopt;
    const TEntry entry{at, ReadLe32(head, 8), ReadLe32(head, 12), ReadLe64(head, 16), ReadLe32(head, 24)};
    const std::int64_t needed = static_cast<std::int64_t>(EntryHead) +
                                std::int64_t{entry.Descriptors} * static_cast<std::int64_t>(DescriptorSize);
    const bool sound = entry.Length >= Sector && entry.Length <= Length() && entry.Length % Sector == 0 &&
                       entry.Tail < Length() && entry.Tail % Sector == 0 && needed <= entry.Length && entry.Number > 0;
    FHashesLeft -= sound ? entry.Length : 0;
    if (!sound || FHashesLeft < 0) return std::nullopt;
    constexpr std::size_t checksum = 4;
    if (Crc32C(Ring(at, entry.Length), checksum) != ReadLe32(head, checksum)) return std::nullopt;
    return entry;
  }

  /// The entry that lies after another one and has the number after its number.
  const TEntry* NextOf(const TEntry& entry) const {
    const auto next = FEntries.find((entry.Start + entry.Length) % Length());
    return next != FEntries.end() && next->second.Number == entry.Number + 1 ? &next->second : nullptr;
  }

  /// From one entry to another; empty when that is not reached. Only entries that overlap can fail here, so the
  /// steps are bounded in all.
  std::vector<TEntry> SequenceOf(const TEntry& tail, const TEntry& head, std::size_t& stepsLeft) const {
    std::vector<TEntry> sequence;
    for (const TEntry* entry = &tail; entry != nullptr && stepsLeft > 0; entry = NextOf(*entry), --stepsLeft) {
      sequence.push_back(*entry);
      if (entry->Start == head.Start) return sequence;
    }
    return {};
  }

  TByteDynArray FBytes;
  std::span<const std::uint8_t> FGuid;
  std::map<std::int64_t, TEntry> FEntries;  // by start
  std::int64_t FHashesLeft;
};

constexpr std::array<std::uint32_t, 256> Crc32CTable = [] {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? 0x82F63B78U : 0U);
    table[i] = value;
  }
  return table;
}();

}  // namespace

std::uint32_t Crc32C(std::span<const std::uint8_t> bytes, std::size_t hole) {
  std::uint32_t crc = ~0U;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint8_t byte = i >= hole && i < hole + 4 ? std::uint8_t{0} : bytes[i];
    crc = Crc32CTable[(crc ^ byte) & 0xFF] ^ (crc >> 8);
  }
  return ~crc;
}

std::unique_ptr<IDevice> WithReplayedLog(std::unique_ptr<IDevice> file, const TVhdxLogPlace& place) {
  if (place.Length < Sector || place.Length > LongestLog || place.Length % Sector != 0) return nullptr;
  TByteDynArray bytes =
      BytesAt(*file, static_cast<std::uint64_t>(place.Start), static_cast<std::uint64_t>(place.Length));
  if (bytes.empty()) return nullptr;
  TLog log(std::move(bytes), place.Guid);
  log.Scan();
  // An identity without an entry: the machine went down before the first write.
  if (!log.HasEntries()) return file;
  const std::vector<TEntry> entries = log.ActiveSequence();
  if (entries.empty()) return nullptr;
  auto replayed = std::make_unique<TReplayedFile>(std::move(file));
  for (const TEntry& entry : entries) {
    if (!log.Apply(entry, *replayed)) return nullptr;
  }
  return replayed;
}

}  // namespace brenlow
