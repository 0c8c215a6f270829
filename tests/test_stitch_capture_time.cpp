// When zoltpano stitch says its input was captured: a movie header's creation time (built here
// box by box, and written by the ffmpeg program), else the first frame file's modification time.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <utime.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tools/capture_time.h"
#include "tools/frame_source.h"

namespace {

namespace fs = std::filesystem;
using zolt::tools::inputCaptureTime;
using zolt::tools::movieCreationMs;

// 2024-05-17 08:30:00 UTC: seconds since 1970, and since QuickTime's 1904.
constexpr int64_t kUnixS = 1715934600;
constexpr uint64_t kQuickTimeS = kUnixS + 2082844800ULL;

std::string be(uint64_t v, int n) {
  std::string s(static_cast<size_t>(n), '\0');
  for (int i = n - 1; i >= 0; --i, v >>= 8) s[static_cast<size_t>(i)] = static_cast<char>(v & 0xFF);
  return s;
}

std::string box(const std::string& type, const std::string& payload) {
  return be(payload.size() + 8, 4) + type + payload;
}

std::string mvhd(int version, uint64_t created) {
  const std::string times =
      version == 1 ? be(created, 8) + be(created, 8) : be(created, 4) + be(created, 4);
  return box("mvhd",
             std::string(1, static_cast<char>(version)) + be(0, 3) + times + std::string(80, '\0'));
}

std::string write(const std::string& name, const std::string& bytes) {
  const std::string path = ::testing::TempDir() + name;
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

TEST(CaptureTime, MovieHeaderGivesTheCreationTime) {
  const std::string ftyp = box("ftyp", "isom" + be(0, 4) + "isommp41");
  // Version 0 after a free box inside moov; version 1 behind a 64-bit sized mdat.
  EXPECT_EQ(movieCreationMs(
                write("ct_v0.mp4", ftyp + box("moov", box("free", "xx") + mvhd(0, kQuickTimeS)))),
            kUnixS * 1000);
  const std::string bigMdat = be(1, 4) + "mdat" + be(16 + 5, 8) + "12345";
  EXPECT_EQ(movieCreationMs(write("ct_v1.mp4", ftyp + bigMdat + box("moov", mvhd(1, kQuickTimeS)))),
            kUnixS * 1000);
  // No time (0, as muxers leave it), a box running past the end, no movie header, not a file.
  EXPECT_EQ(movieCreationMs(write("ct_zero.mp4", ftyp + box("moov", mvhd(0, 0)))), -1);
  std::string cut = ftyp + box("moov", mvhd(0, kQuickTimeS));
  cut.resize(cut.size() - 60);
  EXPECT_EQ(movieCreationMs(write("ct_cut.mp4", cut)), -1);
  EXPECT_EQ(movieCreationMs(write("ct_none.mp4", ftyp + box("mdat", "abc"))), -1);
  EXPECT_EQ(movieCreationMs(write("ct_text.mp4", "hello")), -1);
  EXPECT_EQ(movieCreationMs("/nonexistent.mp4"), -1);
  for (const char* n : {"v0", "v1", "zero", "cut", "none", "text"})
    fs::remove(::testing::TempDir() + "ct_" + n + ".mp4");

  if (std::system("ffmpeg -version >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "the ffmpeg program is missing (scripts/setup.sh installs it)";
  for (const char* ext : {".mp4", ".mov"}) {
    const std::string clip = ::testing::TempDir() + "ct_ffmpeg" + ext;
    ASSERT_EQ(std::system(("ffmpeg -nostdin -v error -y -f lavfi -i color=c=gray:s=64x48:d=0.1 "
                           "-metadata creation_time=2024-05-17T08:30:00Z " +
                           clip + " >/dev/null 2>&1")
                              .c_str()),
              0);
    const zolt::tools::CaptureTime t = inputCaptureTime(clip);
    EXPECT_EQ(t.utcMs, kUnixS * 1000) << ext;
    EXPECT_EQ(t.source, "the video's creation time");
    fs::remove(clip);
  }
}

// Without a movie header: the file's time; a folder's first frame file in name order, a
// recording's frames/ first, tables and descriptions left out.
TEST(CaptureTime, FilesAndFoldersGiveTheFirstFramesModificationTime) {
  const fs::path dir = fs::path(::testing::TempDir()) / "ct_folder";
  fs::remove_all(dir);
  fs::create_directories(dir);
  const auto touch = [](const fs::path& p, int64_t s) {
    std::ofstream(p) << "x";
    const utimbuf t{static_cast<time_t>(s), static_cast<time_t>(s)};
    ASSERT_EQ(::utime(p.c_str(), &t), 0);
  };
  touch(dir / "a.csv", kUnixS - 500);
  touch(dir / "meta.json", kUnixS - 400);
  touch(dir / "f0002.png", kUnixS + 20);
  touch(dir / "f0001.png", kUnixS + 10);
  EXPECT_EQ(inputCaptureTime(dir.string()).utcMs, (kUnixS + 10) * 1000);
  EXPECT_EQ(inputCaptureTime((dir / "f0002.png").string()).utcMs, (kUnixS + 20) * 1000);
  fs::create_directories(dir / "frames");
  touch(dir / "frames" / "0000.jpg", kUnixS + 30);
  const zolt::tools::CaptureTime t = inputCaptureTime(dir.string());
  EXPECT_EQ(t.utcMs, (kUnixS + 30) * 1000);
  EXPECT_EQ(t.source, "the modification time of '" + (dir / "frames" / "0000.jpg").string() + "'");
  fs::remove_all(dir / "frames");
  for (const char* name : {"a.csv", "meta.json", "f0001.png", "f0002.png"}) fs::remove(dir / name);
  EXPECT_THROW(inputCaptureTime(dir.string()), zolt::tools::InputError);
  fs::remove_all(dir);
}

}  // namespace
