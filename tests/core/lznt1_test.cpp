// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/lznt1.h"

#include <doctest/doctest.h>

#include <random>
#include <string>

using namespace brenlow;

namespace {

std::string Decompressed(const TByteDynArray& stream, std::size_t limit = 65536) {
  TByteDynArray output;
  if (!DecompressLZNT1(stream, output, limit)) return "damaged";
  return {output.begin(), output.end()};
}

}  // namespace

TEST_CASE("LZNT1: published streams") {
  CHECK((Decompressed({0x03, 0xB0, 0x02, 0x00, 0xFC, 0x0F}) == std::string(4096, '\0')));
  CHECK(Decompressed({0x00, 0x30, 0x41}) == "A");
  CHECK((Decompressed({0x38, 0xB0, 0x88, 0x46, 0x23, 0x20, 0x00, 0x20, 0x47, 0x20, 0x41, 0x00, 0x10, 0xA2, 0x47,
                       0x01, 0xA0, 0x45, 0x20, 0x44, 0x00, 0x08, 0x45, 0x01, 0x50, 0x79, 0x00, 0xC0, 0x45, 0x20,
                       0x05, 0x24, 0x13, 0x88, 0x05, 0xB4, 0x02, 0x4A, 0x44, 0xEF, 0x03, 0x58, 0x02, 0x8C, 0x09,
                       0x16, 0x01, 0x48, 0x45, 0x00, 0xBE, 0x00, 0x9E, 0x00, 0x04, 0x01, 0x18, 0x90, 0x00}) ==
         std::string("F# F# G A A G F# E D D E F# F# E E F# F# G A A G F# E D D E F# E D D E E F# D E F# G F# D E F# "
                     "G F# E D E A F# F# G A A G F# E D D E F# E D D") +
             '\0'));
}

TEST_CASE("LZNT1: ends and damage") {
  CHECK(Decompressed({}).empty());
  CHECK(Decompressed({0x41}).empty());                                                 // half a header
  CHECK(Decompressed({0x00, 0x30, 0x41, 0x00, 0x00, 0xFF, 0xFF}) == "A");              // garbage behind the end mark
  CHECK(Decompressed({0x05, 0x30, 0x41}) == "damaged");                                // body past the end
  CHECK(Decompressed({0x02, 0xB0, 0x01, 0x00, 0x00}) == "damaged");                    // distance above what is out
  CHECK(Decompressed({0x02, 0xB0, 0x02, 0x41, 0x00}) == "damaged");                    // half a word
  CHECK(Decompressed({0x06, 0xB0, 0x06, 0x00, 0xFC, 0x0F, 0xFC, 0x0F}) == "damaged");  // longer than a chunk
  // A short chunk in the middle is filled up; a full output ends the call.
  CHECK((Decompressed({0x00, 0x30, 0x41, 0x00, 0x30, 0x42}) == "A" + std::string(4095, '\0') + "B"));
  CHECK((Decompressed({0x00, 0x30, 0x41, 0x00, 0x30, 0x42}, 100) == "A" + std::string(99, '\0')));
}

TEST_CASE("LZNT1: what goes in comes out, and is small where it can be") {
  std::mt19937 random(7);
  const auto check = [](const std::string& text, double ratio) {
    TByteDynArray stream;
    REQUIRE(CompressLZNT1({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, stream,
                          text.size() * 2 + 100));
    CHECK((Decompressed(stream) == text));
    CHECK(static_cast<double>(stream.size()) <= static_cast<double>(text.size()) * ratio + 2);
  };
  check("", 1);
  check("a", 3);
  check("aaa", 2);
  for (const std::size_t size : {4095UL, 4096UL, 4097UL, 65536UL}) {
    std::string noise(size, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    check(noise, 1.0005);  // two bytes a chunk
    check(std::string(size, 'z'), 0.002);
  }
  for (std::size_t period = 2; period <= 20; ++period) {
    std::string text;
    for (std::size_t i = 0; i < 10'000; ++i) text += static_cast<char>('a' + i % period);
    check(text, 0.06);
  }
  // Matches whose distance is at the limit of each width of the field.
  for (const std::size_t distance : {16UL, 17UL, 32UL, 33UL, 512UL, 1024UL, 2048UL, 4090UL}) {
    std::string text = "needle";
    while (text.size() < distance) text += static_cast<char>(random());
    check(text + "needle", 1.2);
  }
  std::string words;
  while (words.size() < 65536) words += "word" + std::to_string(random() % 500) + " ";
  words.resize(65536);
  check(words, 0.6);
  // Incompressible data do not fit into their own size.
  std::string noise(65536, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  TByteDynArray stream;
  CHECK_FALSE(CompressLZNT1({reinterpret_cast<const std::uint8_t*>(noise.data()), noise.size()}, stream, noise.size()));
}
