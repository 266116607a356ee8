// SPDX-License-Identifier: GPL-3.0-or-later
// Where files end by their own structure: whole, cut, with something behind them; and what a scan makes of it.
#include "analysis/deep/structure.h"

#include <doctest/doctest.h>
#include <zlib.h>

#include "analysis/analysis.h"
#include "analysis/scan.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

std::string Le(std::uint64_t value, int size) {
  std::string text;
  for (int i = 0; i < size; ++i, value >>= 8) text += static_cast<char>(value & 0xFF);
  return text;
}

std::string Be(std::uint64_t value, int size) {
  const std::string text = Le(value, size);
  return {text.rbegin(), text.rend()};
}

std::string Png(const std::string& pixels = std::string(70000, 'x')) {
  std::string file = "\x89PNG\r\n\x1A\n";
  for (const auto& [kind, data] :
       {std::pair<std::string, std::string>{"IHDR", std::string(13, '\1')}, {"IDAT", pixels}, {"IEND", ""}}) {
    const std::string body = kind + data;
    const uLong sum = crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size()));
    file += Be(data.size(), 4) + body + Be(sum, 4);
  }
  return file;
}

std::string Zip() {
  const std::string member = "PK\3\4" + Le(10, 2) + Le(0, 12) + Le(0, 8) + Le(1, 2) + Le(0, 2) + "a";
  const std::string directory = "PK\1\2" + Le(0, 24) + Le(1, 2) + Le(0, 16) + "a";
  const std::string end = "PK\5\6" + Le(0, 4) + Le(1, 2) + Le(1, 2) + Le(directory.size(), 4) + Le(member.size(), 4);
  // An end record that belongs to no directory comes first.
  return member.substr(0, 30) + "a" + directory + end + Le(3, 2) + "end";
}

std::string Gif() {
  return "GIF89a" + Le(2, 2) + Le(2, 2) + std::string("\x80\0\0", 3) + std::string(6, '\0') + "!" + "\xFE" +
         std::string("\3abc\0", 5) + "," + Le(0, 4) + Le(2, 2) + Le(2, 2) + std::string("\0\2\2\x44\1\0;", 7);
}

std::string Wave() {
  return "RIFF" + Le(4 + 24 + 8 + 300, 4) + "WAVEfmt " + Le(16, 4) + std::string(16, '\1') + "data" + Le(300, 4) +
         std::string(300, 'w');
}

std::string Jpeg() {
  return "\xFF\xD8\xFF\xE1" + Be(6, 2) + "\xFF\xD9zz" + "\xFF\xC0" + Be(4, 2) + "ab" + "\xFF\xDA" + Be(4, 2) + "cd" +
         std::string("ef\xFF\0gh\xFF\xD0ij", 10) + "\xFF\xD9";
}

std::string Midi() {
  return "MThd" + Be(6, 4) + Be(0, 2) + Be(1, 2) + Be(96, 2) + "MTrk" + Be(4, 4) + std::string("\0\xFF\x2F\0", 4);
}

std::string Bitmap() {
  return "BM" + Le(54 + 24, 4) + Le(0, 4) + Le(54, 4) + Le(40, 4) + Le(3, 4) + Le(2, 4) + Le(1, 2) + Le(24, 2) +
         Le(0, 24) + std::string(24, 'p');
}

std::string Gzip() {
  std::string text(200000, 'g');
  for (std::size_t i = 0; i < text.size(); i += 7) text[i] = static_cast<char>(i * i >> 5);
  std::string file(text.size(), '\0');
  z_stream stream{};
  REQUIRE(deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) == Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(text.data());
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(file.data());
  stream.avail_out = static_cast<uInt>(file.size());
  REQUIRE(deflate(&stream, Z_FINISH) == Z_STREAM_END);
  file.resize(stream.total_out);
  deflateEnd(&stream);
  return file;
}

std::string Psd() {
  return "8BPS" + Be(1, 2) + Be(0, 6) + Be(1, 2) + Be(2, 4) + Be(4, 4) + Be(8, 2) + Be(1, 2) + Be(0, 4) + Be(3, 4) +
         "res" + Be(0, 4) + Be(1, 2) + Be(2, 2) + Be(3, 2) + "rowdy";
}

/// A block of an archive of format 5: its sum, its length, its content.
std::string RarBlock(const std::string& body, const std::string& data = {}) {
  const std::string header = static_cast<char>(body.size()) + body;
  return Le(crc32(0, reinterpret_cast<const Bytef*>(header.data()), static_cast<uInt>(header.size())), 4) + header +
         data;
}

std::string Rar() {
  return std::string("Rar!\x1A\x07\x01\0", 8) + RarBlock(std::string("\1\0\0", 3)) +
         RarBlock(std::string("\2\2\4file", 7), "data") + RarBlock(std::string("\5\0\0", 3));
}

std::string OldRar() {
  const auto block = [](const std::string& body) {
    return Le(crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size())) & 0xFFFF, 2) + body;
  };
  return std::string("Rar!\x1A\x07\0", 7) + block("\x73" + Le(0, 2) + Le(13, 2) + Le(0, 6)) +
         block("\x74" + Le(0x8000, 2) + Le(11, 2) + Le(4, 4)) + "data" + block("\x7B" + Le(0x4000, 2) + Le(7, 2));
}

std::string Swf() {
  return "FWS\x06" + Le(8 + 2 + 4 + 2 + 3 + 2, 4) + Le(0x0008, 2) + Le(0, 4) + Le(0x43, 2) + "rgb" + Le(0, 2);
}

std::string Wmf() {
  return "\xD7\xCD\xC6\x9A" + Le(0, 18) + Le(1, 2) + Le(9, 2) + Le(0x300, 2) + Le(0, 12) + Le(4, 4) + Le(0x103, 2) +
         Le(8, 2) + Le(3, 4) + Le(0, 2);
}

std::string Compound() {
  std::string header = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1" + Le(0, 16) + Le(0x3E, 2) + Le(3, 2) + Le(0xFFFE, 2) +
                       Le(9, 2) + Le(6, 2) + Le(0, 10) + Le(1, 4) + Le(1, 4) + Le(0, 4) + Le(4096, 4);
  header.resize(68, '\0');
  header += Le(0xFFFFFFFE, 4) + Le(0, 4) + Le(0, 4);
  while (header.size() < 512) header += Le(0xFFFFFFFF, 4);
  std::string table = Le(0xFFFFFFFD, 4) + Le(0xFFFFFFFE, 4) + Le(3, 4) + Le(0xFFFFFFFE, 4);
  while (table.size() < 512) table += Le(0xFFFFFFFF, 4);
  return header + table + std::string(3 * 512, 'c');
}

TStructure ReadText(TStringView extension, const std::string& text, std::int64_t budget = 1 << 26) {
  TFileWindow window(
      [&](std::int64_t position, std::span<std::uint8_t> buffer) {
        std::copy_n(text.begin() + position, buffer.size(), buffer.begin());
      },
      static_cast<std::int64_t>(text.size()), budget);
  return StructureReaderOf(extension)(window);
}

}  // namespace

TEST_CASE("structure: the end of each format, with anything behind it; cut or with wild fields it is not sound") {
  const std::pair<TStringView, std::string> samples[] = {
      {u".png", Png()},  {u".zip", Zip()},    {u".gif", Gif()}, {u".wav", Wave()},     {u".jpg", Jpeg()},
      {u".mid", Midi()}, {u".bmp", Bitmap()}, {u".gz", Gzip()}, {u".doc", Compound()}, {u".psd", Psd()},
      {u".rar", Rar()},  {u".rar", OldRar()}, {u".swf", Swf()}, {u".wmf", Wmf()}};
  for (const auto& [extension, file] : samples) {
    CAPTURE(ToUtf8(extension));
    const auto size = static_cast<std::int64_t>(file.size());
    for (const std::string& behind : {std::string(), std::string(700, '\0'), std::string(70000, 'Q')}) {
      const TStructure read = ReadText(extension, file + behind);
      CHECK(read.Sound);
      CHECK(read.Size == size);
    }
    // The comment of a zip may be missing a byte only by its bound; every cut must show.
    for (const std::int64_t cut : {size - 1, size / 2, std::int64_t{8}}) {
      CHECK_FALSE(ReadText(extension, file.substr(0, static_cast<std::size_t>(cut))).Sound);
    }
    CHECK_FALSE(ReadText(extension, file, 20).Sound);
    // Every field at its largest: it must end, and what is called sound must lie within the bytes.
    for (std::size_t at = 4; at < std::min<std::size_t>(file.size(), 400); ++at) {
      std::string wild = file;
      for (std::size_t i = at; i < std::min(at + 4, wild.size()); ++i) wild[i] = '\xFF';
      const TStructure read = ReadText(extension, wild);
      CHECK((!read.Sound || read.Size <= size));
    }
  }
}

TEST_CASE("structure: folders of a cabinet that share their blocks are not walked without end") {
  // 495 folders, each with the same 7,000 empty blocks, all of which lie in bytes that were fetched once.
  std::string file = "MSCF" + Le(0, 4) + Le(65000, 4) + Le(0, 12) + Le(0, 2) + Le(65535, 2) + Le(0, 8);
  file.resize(36);
  while (file.size() < 4000) file += Le(8000, 4) + Le(7000, 2) + Le(0, 2);
  file.resize(70000, '\0');
  std::int64_t budget = 1 << 20;
  TFileWindow window(
      [&](std::int64_t position, std::span<std::uint8_t> buffer) {
        std::copy_n(file.begin() + position, buffer.size(), buffer.begin());
      },
      static_cast<std::int64_t>(file.size()), budget);
  CHECK_FALSE(StructureReaderOf(u".cab")(window).Sound);
  CHECK(window.IsSpent());
}

TEST_CASE("structure: a scan on request gives files the size that they state, and keeps what it cannot read") {
  TImage image(400 * 512, 0x20);
  const auto put = [&](std::size_t sector, const std::string& text) {
    std::copy(text.begin(), text.end(), image.begin() + static_cast<std::ptrdiff_t>(sector * 512));
  };
  const std::string wave = Wave();
  std::string pixels(70000, 'x');
  pixels.replace(10 * 512 - 41, 4, "MSCF");  // at the start of a sector: closes the picture for the step of the scan
  const std::string png = Png(pixels);
  put(2, wave);
  put(10, png);
  put(200, png.substr(0, 5000));
  TEngine engine;
  const TMounted source = Mount(engine, std::move(image));
  TScanRequest request;
  request.Drive = source.Number;
  request.Deep = true;
  REQUIRE(RunScan(engine, request));
  std::string rows;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    const TFileInfo& info = engine.Files().List[i].FileInfo;
    if (info.aDeepAnalyse && !info.blnFolder)
      rows += std::to_string(info.FirstCluster) + "+" + std::to_string(info.aSize) + " ";
  }
  CHECK(rows == "2+" + std::to_string(wave.size()) + " 10+" + std::to_string(png.size()) + " 20+" +
                    std::to_string(180 * 512) + " 200+" + std::to_string(200 * 512) + " ");
}
