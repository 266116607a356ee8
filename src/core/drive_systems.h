// SPDX-License-Identifier: GPL-3.0-or-later
// The file-system drivers' data about one drive, so that the registry can hold it without knowing them.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

namespace brenlow {

/// At most one record of each type, made when it is first asked for; a driver gives its own
/// record a short name (`FATInfo(drive)`). Copies share the records, loaded tables and all, until either
/// side asks for one to change it: a reference is good until the drive is copied.
class TDriveSystems {
 public:
  template <typename TInfo>
  TInfo& Get() {
    TSlot* slot = Find(Key<TInfo>());
    if (slot == nullptr) slot = &FSlots.emplace_back(Key<TInfo>(), std::make_shared<TInfo>());
    if (slot->Record.use_count() > 1)
      slot->Record = std::make_shared<TInfo>(*static_cast<const TInfo*>(slot->Record.get()));
    return *static_cast<TInfo*>(slot->Record.get());
  }

  /// An empty record where there is none.
  template <typename TInfo>
  const TInfo& Get() const {
    static const TInfo none;
    const TSlot* slot = const_cast<TDriveSystems*>(this)->Find(Key<TInfo>());
    return slot == nullptr ? none : *static_cast<const TInfo*>(slot->Record.get());
  }

  /// Back to the state in which nothing is known.
  void Clear() { FSlots.clear(); }

 private:
  using TKey = const void*;
  struct TSlot {
    TSlot(TKey key, std::shared_ptr<void> record) : Key(key), Record(std::move(record)) {}
    TKey Key;
    std::shared_ptr<void> Record;
  };

  template <typename TInfo>
  static constexpr char KeyOf = 0;
  template <typename TInfo>
  static constexpr TKey Key() {
    return &KeyOf<TInfo>;
  }
  TSlot* Find(TKey key) {
    const auto slot = std::find_if(FSlots.begin(), FSlots.end(), [&](const TSlot& s) { return s.Key == key; });
    return slot == FSlots.end() ? nullptr : &*slot;
  }

  std::vector<TSlot> FSlots;  // one or two
};

}  // namespace brenlow
