#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include <opencv2/core/affine.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "image/colour_convert.h"
#include "sim/sim_error.h"
#include "sim/sweep_reader.h"
#include "sim/sweep_simulator.h"
#include "sim/sweep_writer.h"
#include "support/textures.h"

using namespace zolt::sim;
using zolt::test::texturePhoto;

namespace {

SweepConfig preset(const char* name, int w, int h, int frames,
                   SweepDirection d = SweepDirection::Right) {
  SweepConfig c = SweepConfig::fromPreset(name);
  c.width = w;
  c.height = h;
  c.frames = frames;
  c.direction = d;
  return c;
}

// Channel ch of an 8-bit BGR image at (x, y), Catmull-Rom or bilinear.
double sampleAt(const cv::Mat& img, double x, double y, int ch, bool cubic) {
  const int ix = static_cast<int>(std::floor(x)), iy = static_cast<int>(std::floor(y));
  auto w = [cubic](double f, int i) {
    const double t = std::fabs(f - i);
    if (!cubic) return std::max(0.0, 1 - t);
    return t < 1 ? 1.5 * t * t * t - 2.5 * t * t + 1
                 : (t < 2 ? -0.5 * t * t * t + 2.5 * t * t - 4 * t + 2 : 0.0);
  };
  double sum = 0;
  for (int j = -1; j <= 2; ++j)
    for (int i = -1; i <= 2; ++i)
      sum += w(x - ix, i) * w(y - iy, j) * img.at<cv::Vec3b>(iy + j, ix + i)[ch];
  return sum;
}

// The attitude as truth.csv states it: Ry(yaw) Rx(-pitch) Rz(roll), camera x right, y down.
cv::Matx33d statedAttitude(const TruthRecord& t) {
  const double cy = std::cos(t.yaw), sy = std::sin(t.yaw), cp = std::cos(-t.pitch),
               sp = std::sin(-t.pitch), cr = std::cos(t.roll), sr = std::sin(t.roll);
  return cv::Matx33d(cy, 0, sy, 0, 1, 0, -sy, 0, cy) * cv::Matx33d(1, 0, 0, 0, cp, -sp, 0, sp, cp) *
         cv::Matx33d(cr, -sr, 0, sr, cr, 0, 0, 0, 1);
}

cv::Matx33d expMap(const cv::Vec3d& w) { return cv::Affine3d(w).rotation(); }

double angleBetween(const cv::Matx33d& a, const cv::Matx33d& b) {
  return cv::norm(cv::Affine3d(a.t() * b).rvec());
}

}  // namespace

// In the translate model frame pixel (u, v) shows scene point (x + u, y + v) of truth.csv, in
// every direction, turned about the frame centre by the roll (clockwise camera,
// counter-clockwise picture); the frame is the engine's NV21 conversion of that picture.
TEST(SweepSimulator, TranslateFramesShowThePhotoAtTheTruePosition) {
  const cv::Mat photo = texturePhoto(1500, 1300, 7);
  using D = SweepDirection;
  const struct {
    D d;
    double rollDeg;
  } cases[] = {{D::Right, 0}, {D::Left, 0}, {D::Down, 0}, {D::Up, 0}, {D::Right, 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << zolt::sim::toString(c.d) << " roll " << c.rollDeg);
    SweepConfig cfg = preset("steady", 642, 642, 4, c.d);
    cfg.speed = 0.0137;  // fractional steps
    cfg.tremorRollDeg = c.rollDeg;
    SweepSimulator sim(cfg, photo);
    const cv::Rect region = sim.truthRegion();
    const double cx = (cfg.width - 1) / 2.0, cy = (cfg.height - 1) / 2.0;
    bool sawFraction = false;
    for (int k = 0; k < sim.frameCount(); ++k) {
      const TruthRecord& t = sim.truth()[k];
      EXPECT_EQ(t.roll != 0.0, c.rollDeg != 0.0);
      sawFraction = sawFraction || t.x != std::floor(t.x) || t.y != std::floor(t.y);
      const cv::Mat bgr = sim.renderSharpBgr(k);
      const double co = std::cos(t.roll), s = std::sin(t.roll);
      double worst = 0;
      for (int v = 0; v < cfg.height; v += 37)
        for (int u = 0; u < cfg.width; u += 41)
          for (int ch = 0; ch < 3; ++ch) {
            const double sx = region.x + t.x + cx + co * (u - cx) - s * (v - cy);
            const double sy = region.y + t.y + cy + s * (u - cx) + co * (v - cy);
            worst = std::max(worst, std::fabs(bgr.at<cv::Vec3b>(v, u)[ch] -
                                              sampleAt(photo, sx, sy, ch, t.roll == 0)));
          }
      // Without roll the picture is the photo's cubic sample; with it, interpolation at 1/32 pixel.
      EXPECT_LE(worst, t.roll == 0 ? 1.0 : 3.0) << "frame " << k;

      SimFrame f;
      sim.renderFrame(k, f);
      std::vector<uint8_t> expect(sim.frameBytes());
      const size_t ySize = static_cast<size_t>(cfg.width) * cfg.height;
      zolt::bgrToNv21(zolt::referenceColourKernels(), bgr.data, bgr.step, bgr.rows, bgr.cols,
                      expect.data(), expect.data() + ySize, expect.size() - ySize);
      EXPECT_EQ(f.nv21, expect) << "frame " << k;
    }
    EXPECT_TRUE(sawFraction);
    // The sweep goes the stated way.
    const TruthRecord& last = sim.truth().back();
    const bool horizontal = c.d == D::Right || c.d == D::Left;
    EXPECT_GT((c.d == D::Right || c.d == D::Down ? 1 : -1) * (horizontal ? last.dx : last.dy), 20);
    EXPECT_EQ(horizontal ? last.dy : last.dx, 0);
  }
}

// Rotate model: the frame's centre shows the stated scene point, the stated attitude is the one
// rendered, and the gyroscope rates integrate back to it.
TEST(SweepSimulator, RotateGyroIntegratesToTheStatedAttitude) {
  const cv::Mat photo = texturePhoto(2600, 1500, 3);
  for (bool portrait : {false, true}) {
    SCOPED_TRACE(portrait ? "portrait" : "landscape");
    SweepConfig cfg = preset("handheld", portrait ? 720 : 1280, portrait ? 1280 : 720, 24);
    cfg.model = CameraModel::Rotate;
    cfg.gyroNoise = 0;
    cfg.gyroBias = {{0, 0, 0}};
    cfg.tremorRollDeg = 1.0;
    SweepSimulator sim(cfg, photo);
    const std::vector<TruthRecord>& truth = sim.truth();
    for (const TruthRecord& t : truth)
      EXPECT_LT(angleBetween(statedAttitude(t), sim.attitudeAt(t.tNs * 1e-9)), 1e-6);

    // Integrate body rates (trapezoid in the rate, exponential map per step); frame times fall
    // between events, the rest of the interval runs on the last rate.
    const auto& ev = sim.gyroEvents();
    ASSERT_GT(ev.size(), 100u);
    auto rate = [&](size_t i) { return sim.cameraToSensor().t() * cv::Vec3d(ev[i].rate.data()); };
    cv::Matx33d r = statedAttitude(truth[0]);
    size_t i = 0;
    double worst = 0;
    for (size_t k = 1; k < truth.size(); ++k) {
      const double tEnd = truth[k].tNs * 1e-9;
      for (; i + 1 < ev.size() && ev[i + 1].tNs * 1e-9 <= tEnd + 1e-12; ++i)
        r = r * expMap(0.5 * (rate(i) + rate(i + 1)) * ((ev[i + 1].tNs - ev[i].tNs) * 1e-9));
      worst = std::max(worst, angleBetween(r * expMap(rate(i) * (tEnd - ev[i].tNs * 1e-9)),
                                           statedAttitude(truth[k])));
    }
    EXPECT_LT(worst, 5e-4) << "radians";
    // Turning right is a negative rate about the axis that points up in the picture.
    EXPECT_LT(portrait ? ev[60].rate[1] : ev[60].rate[0], -0.05);
    EXPECT_GT(truth.back().yaw, truth.front().yaw);

    // The pixels around the centre show the stated position.
    const TruthRecord& t = truth[12];
    const cv::Mat bgr = sim.renderSharpBgr(12);
    double worstPx = 0;
    for (int v = cfg.height / 2 - 6; v <= cfg.height / 2 + 6; v += 3)
      for (int u = cfg.width / 2 - 6; u <= cfg.width / 2 + 6; u += 3)
        worstPx = std::max(worstPx, std::fabs(bgr.at<cv::Vec3b>(v, u)[0] -
                                              sampleAt(photo, sim.truthRegion().x + t.x + u,
                                                       sim.truthRegion().y + t.y + v, 0, false)));
    EXPECT_LE(worstPx, 3.0);
  }
}

// A fixed seed gives the same frames and gyroscope whatever order frames are rendered in.
TEST(SweepSimulator, FixedSeedGivesIdenticalBytesInAnyOrder) {
  const cv::Mat photo = texturePhoto(1800, 900, 5);
  SweepConfig cfg = preset("shaky", 642, 642, 5);
  cfg.jolts = 0;  // they need more frames
  cfg.seed = 42;
  SweepSimulator a(cfg, photo), b(cfg, photo);
  SimFrame fa, fb3, fb0;
  b.renderFrame(3, fb3);  // out of order, before a runs
  b.renderFrame(0, fb0);
  std::vector<std::vector<uint8_t>> framesA;
  while (a.next(fa)) framesA.push_back(fa.nv21);
  EXPECT_TRUE(framesA[3] == fb3.nv21 && framesA[0] == fb0.nv21);
  ASSERT_EQ(a.gyroEvents().size(), b.gyroEvents().size());
  for (size_t i = 0; i < a.gyroEvents().size(); ++i)
    EXPECT_EQ(a.gyroEvents()[i].rate, b.gyroEvents()[i].rate);
  cfg.seed = 43;
  SweepSimulator(cfg, photo).renderFrame(3, fb3);
  EXPECT_NE(framesA[3], fb3.nv21);
}

TEST(SweepSimulator, BadInputIsRefusedWithAMessage) {
  const cv::Mat small = texturePhoto(1000, 700, 1), narrow = texturePhoto(1400, 800, 1),
                wide = texturePhoto(2000, 800, 1);
  SweepConfig missing = preset("steady", 1280, 720, 10), shaky = SweepConfig::fromPreset("shaky");
  const SweepConfig ok = preset("steady", 1280, 720, 10);
  missing.photoPath = "/nonexistent/photo.jpg";
  shaky.frames = 5;  // too short for its jolts: refused rather than silently left out
  const struct {
    SweepConfig cfg;
    const cv::Mat* photo;
    std::string says;  // empty: accepted
  } cases[] = {{missing, nullptr, "cannot read photo"},
               {ok, &small, "smaller than the frame"},
               {ok, &narrow, "10 frames"},
               {ok, &wide, ""},
               {preset("steady", 1280, 720, 400), &wide, "400 frames"},
               {preset("steady", 640, 720, 10), &wide, "above 640"},
               {shaky, &wide, "too short for the events"}};
  for (const auto& c : cases) {
    std::string message;
    try {
      if (c.photo)
        SweepSimulator s(c.cfg, *c.photo);
      else
        SweepSimulator s(c.cfg);
    } catch (const SimError& e) {
      message = e.what();
    }
    EXPECT_TRUE(c.says.empty() ? message.empty() : message.find(c.says) != std::string::npos)
        << "expected \"" << c.says << "\", got \"" << message << "\"";
  }
  EXPECT_THROW(SweepConfig::fromPreset("sideways"), SimError);
  EXPECT_THROW(zolt::sim::parseDirection("north"), SimError);
}

TEST(SweepWriterReader, RoundTripAndNoPartialDirectory) {
  const cv::Mat photo = texturePhoto(1500, 800, 21);
  SweepConfig cfg = preset("handheld", 642, 642, 4);
  SweepSimulator sim(cfg, photo);
  namespace fs = std::filesystem;
  const std::string dir =
      testing::TempDir() + "zoltpano_sim_roundtrip_" + std::to_string(::getpid());
  fs::remove_all(dir);
  SweepWriter::write(sim, dir);
  for (const auto& e : fs::directory_iterator(fs::path(dir).parent_path()))
    EXPECT_EQ(e.path().string().find(dir + ".partial"), std::string::npos);

  SweepReader reader(dir);
  EXPECT_TRUE(reader.frameCount() == 4 && reader.direction() == 1);
  EXPECT_EQ(reader.meta().at("options").at("preset"), "handheld");
  ASSERT_EQ(reader.truth().size(), 4u);
  ASSERT_EQ(reader.gyro().size(), sim.gyroEvents().size());
  std::vector<uint8_t> bytes;
  size_t gyroSeen = 0;
  for (int k = 0; k < 4; ++k) {
    SimFrame f;
    sim.renderFrame(k, f);
    reader.readFrame(k, bytes);
    EXPECT_EQ(bytes, f.nv21);
    const TruthRecord& t = reader.truth()[k];
    EXPECT_TRUE(std::fabs(t.x - f.truth.x) < 1e-6 && std::fabs(t.yaw - f.truth.yaw) < 1e-9 &&
                t.phase == f.truth.phase)
        << k;
    EXPECT_EQ(reader.gyroForFrame(k).size(), f.gyro.size());
    gyroSeen += f.gyro.size();
  }
  EXPECT_EQ(gyroSeen,
            sim.gyroEvents().size());  // no time offset: every event before the last frame
  const cv::Mat png = cv::imread(reader.truthPanoramaPath(), cv::IMREAD_COLOR);
  ASSERT_EQ(png.size(), sim.truthRegion().size());
  EXPECT_EQ(cv::norm(png, sim.truthPanorama(), cv::NORM_INF), 0.0);

  // An existing sweep is kept unless replacing is asked for.
  EXPECT_THROW(SweepWriter::write(sim, dir), SimError);
  EXPECT_NO_THROW(SweepReader{dir});
  zolt::sim::WriteOptions replace;
  replace.overwrite = true;
  EXPECT_NO_THROW(SweepWriter::write(sim, dir, replace));
  fs::remove_all(dir);
  EXPECT_THROW(SweepReader{dir}, SimError);
}
