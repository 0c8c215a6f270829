#include "sim/sweep_writer.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <unistd.h>

#include <opencv2/imgcodecs.hpp>

#include "sim/sim_error.h"

namespace fs = std::filesystem;

namespace zolt::sim {
namespace {

const char* const kTruthHeader =
    "# zoltpano simulated sweep: truth, one line per frame\n"
    "# frame: index from 0. t_ns: frame timestamp, ns from the start of the sweep.\n"
    "# x, y: position of the view in truth.png, pixels, sub-pixel: the scene point at the frame's\n"
    "#   centre pixel ((W-1)/2, (H-1)/2) minus ((W-1)/2, (H-1)/2); x grows to the right, y downwards.\n"
    "#   Translate model without roll: frame pixel (u, v) shows truth.png point (x + u, y + v).\n"
    "# dx, dy: x and y minus those of frame 0.\n"
    "# Engine: against its reference key frame r the tracker measures meanOffX / scale ~ dx - dx[r]\n"
    "#   and meanOffY / scale ~ dy - dy[r] (reference minus current feature position); positive dx\n"
    "#   sweeps are MOVE_RIGHT, negative MOVE_LEFT, positive dy MOVE_DOWN, negative MOVE_UP; the key\n"
    "#   frames' globalCamPoseX/Y ~ -(dx - dx[d]), -(dy - dy[d]), d = the frame that fixed the direction.\n"
    "#   provideNV21Image_SelectFrame offset.x ~ dx - dx[r] (vertical sweeps: dx - dx[d]), offset.y ~\n"
    "#   -(dy - dy[d]) (vertical sweeps: -(dy - dy[r])); GrabInfo_Tracking offset.x ~ -(dx - dx[r]).\n"
    "# yaw, pitch, roll: radians; yaw turns right, pitch down, roll clockwise seen from behind the\n"
    "#   phone; camera-to-world rotation Ry(yaw) Rx(-pitch) Rz(roll) in camera axes x right, y down,\n"
    "#   z forward; yaw = pitch = 0 looks at the middle of the swept region.\n"
    "# gain: auto-exposure gain applied to the frame. phase: what the simulated hand does.\n"
    "frame,t_ns,x,y,dx,dy,yaw,pitch,roll,gain,phase\n";

const char* const kGyroHeader =
    "# zoltpano simulated sweep: gyroscope events\n"
    "# t_ns: event timestamp on the frames' clock (plus gyro.time_offset_ms of meta.json).\n"
    "# wx, wy, wz: angular rate, rad/s, about the phone's sensor axes x right, y up, z out of the\n"
    "#   screen, counter-clockwise positive (right-hand rule), bias and noise included. Landscape:\n"
    "#   image x runs along -y, image y along -x; portrait: image x along x, image y along -y; the\n"
    "#   back camera looks along -z.\n"
    "t_ns,wx,wy,wz\n";

void check(bool ok, const std::string& what) {
  if (!ok) throw SimError(what);
}

}  // namespace

nlohmann::json SweepWriter::configJson(const SweepConfig& c) {
  nlohmann::json j;
  j["preset"] = c.preset;
  j["width"] = c.width;
  j["height"] = c.height;
  j["fps"] = c.fps;
  j["frames"] = c.frames;
  j["direction"] = toString(c.direction);
  j["model"] = toString(c.model);
  j["hfov_deg"] = c.hfovDeg;
  j["vfov_deg"] = c.vfovDeg;
  j["photo"] = c.photoPath;
  j["photo_scale"] = c.photoScale;
  j["speed"] = c.speed;
  j["speed_variation"] = c.speedVariation;
  j["tremor"] = c.tremor;
  j["tremor_roll_deg"] = c.tremorRollDeg;
  j["drift"] = c.drift;
  j["pauses"] = c.pauses;
  j["pause_frames"] = c.pauseFrames;
  j["back_steps"] = c.backSteps;
  j["back_length"] = c.backLength;
  j["back_frames"] = c.backFrames;
  j["burst_speed"] = c.burstSpeed;
  j["burst_frames"] = c.burstFrames;
  j["burst_at"] = c.burstAt;
  j["jolts"] = c.jolts;
  j["jolt_size"] = c.joltSize;
  j["turn_at"] = c.turnAt;
  j["textureless"] = c.textureless;
  j["noise"] = c.noiseSigma;
  j["blur_exposure"] = c.blurExposure;
  j["exposure_drift"] = c.exposureDrift;
  j["gyro_rate_hz"] = c.gyroRateHz;
  j["gyro_bias"] = {c.gyroBias[0], c.gyroBias[1], c.gyroBias[2]};
  j["gyro_noise"] = c.gyroNoise;
  j["gyro_time_offset_ms"] = c.gyroTimeOffsetMs;
  j["seed"] = c.seed;
  return j;
}

nlohmann::json SweepWriter::metaJson(const SweepSimulator& sim) {
  const SweepConfig& c = sim.config();
  const CameraIntrinsics& k = sim.camera();
  const cv::Rect r = sim.truthRegion();
  const cv::Matx33d s = sim.cameraToSensor();
  nlohmann::json j;
  j["format"] = "zoltpano-sweep";
  j["version"] = 1;
  j["width"] = c.width;
  j["height"] = c.height;
  j["frames"] = c.frames;
  j["frame_bytes"] = sim.frameBytes();
  j["fps"] = c.fps;
  j["direction"] = toString(c.direction);
  j["move_direction"] = static_cast<int>(c.direction);
  j["model"] = toString(c.model);
  j["preset"] = c.preset;
  j["seed"] = c.seed;
  j["camera"] = {{"fx", k.fx}, {"fy", k.fy}, {"cx", k.cx}, {"cy", k.cy},
                 {"hfov_deg", k.hfovDeg}, {"vfov_deg", k.vfovDeg}};
  j["photo"] = {{"path", c.photoPath}, {"scale", c.photoScale},
                {"width", sim.photoSize().width}, {"height", sim.photoSize().height}};
  j["truth_png"] = {{"x", r.x}, {"y", r.y}, {"width", r.width}, {"height", r.height},
                    {"note", "region of the scaled photo; truth.csv positions are relative to it"}};
  j["gyro"] = {{"events", sim.gyroEvents().size()},
               {"rate_hz", c.gyroRateHz},
               {"bias", {c.gyroBias[0], c.gyroBias[1], c.gyroBias[2]}},
               {"noise", c.gyroNoise},
               {"time_offset_ms", c.gyroTimeOffsetMs},
               {"camera_to_sensor", {s(0, 0), s(0, 1), s(0, 2), s(1, 0), s(1, 1), s(1, 2),
                                     s(2, 0), s(2, 1), s(2, 2)}}};
  j["options"] = configJson(c);
  return j;
}

void SweepWriter::writeTruthCsv(const std::vector<TruthRecord>& truth, const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "w");
  check(f != nullptr, "cannot write '" + path + "'");
  bool ok = std::fputs(kTruthHeader, f) >= 0;
  for (const TruthRecord& t : truth)
    ok = ok && std::fprintf(f, "%d,%lld,%.6f,%.6f,%.6f,%.6f,%.9f,%.9f,%.9f,%.6f,%s\n", t.frame,
                            static_cast<long long>(t.tNs), t.x, t.y, t.dx, t.dy, t.yaw, t.pitch,
                            t.roll, t.gain, t.phase.c_str()) > 0;
  ok = (std::fclose(f) == 0) && ok;
  check(ok, "cannot write '" + path + "'");
}

void SweepWriter::writeGyroCsv(const std::vector<GyroEvent>& events, const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "w");
  check(f != nullptr, "cannot write '" + path + "'");
  bool ok = std::fputs(kGyroHeader, f) >= 0;
  for (const GyroEvent& e : events)
    ok = ok && std::fprintf(f, "%lld,%.9f,%.9f,%.9f\n", static_cast<long long>(e.tNs), e.rate[0],
                            e.rate[1], e.rate[2]) > 0;
  ok = (std::fclose(f) == 0) && ok;
  check(ok, "cannot write '" + path + "'");
}

void SweepWriter::write(SweepSimulator& sim, const std::string& dir, const WriteOptions& opt) {
  check(!dir.empty(), "no output directory given");
  fs::path target = fs::path(dir);
  if (!target.has_filename()) target = target.parent_path();  // "out/" -> "out"
  std::error_code ec;
  const bool exists = fs::exists(target, ec);
  check(!exists || opt.overwrite,
        "output directory '" + target.string() + "' already exists (use --force to replace it)");
  const fs::path tmp = target.string() + ".partial-" + std::to_string(::getpid());
  fs::remove_all(tmp, ec);
  if (!fs::create_directories(tmp, ec) || ec)
    throw SimError("cannot create directory '" + tmp.string() + "': " + ec.message());
  try {
    {
      std::ofstream meta(tmp / "meta.json");
      meta << metaJson(sim).dump(2) << "\n";
      check(static_cast<bool>(meta), "cannot write '" + (tmp / "meta.json").string() + "'");
    }
    writeTruthCsv(sim.truth(), (tmp / "truth.csv").string());
    writeGyroCsv(sim.gyroEvents(), (tmp / "gyro.csv").string());
    const cv::Mat pano = sim.truthPanorama();
    bool pngOk = false;
    try {
      pngOk = cv::imwrite((tmp / "truth.png").string(), pano);
    } catch (const cv::Exception&) {
      pngOk = false;
    }
    check(pngOk, "cannot write '" + (tmp / "truth.png").string() + "'");
    {
      std::ofstream frames(tmp / "frames.nv21", std::ios::binary);
      check(static_cast<bool>(frames), "cannot write '" + (tmp / "frames.nv21").string() + "'");
      SimFrame f;
      sim.rewind();
      while (sim.next(f)) {
        frames.write(reinterpret_cast<const char*>(f.nv21.data()),
                     static_cast<std::streamsize>(f.nv21.size()));
        check(static_cast<bool>(frames), "cannot write '" + (tmp / "frames.nv21").string() + "'");
        if (opt.progress) opt.progress(f.index + 1, sim.frameCount());
      }
      frames.close();
      check(!frames.fail(), "cannot write '" + (tmp / "frames.nv21").string() + "'");
    }
    // Swap in: an old sweep moves aside first and is removed only once the new one is in place.
    if (exists) {
      const fs::path old = target.string() + ".old-" + std::to_string(::getpid());
      fs::remove_all(old, ec);
      fs::rename(target, old, ec);
      if (ec) throw SimError("cannot replace '" + target.string() + "': " + ec.message());
      fs::rename(tmp, target, ec);
      if (ec) {
        std::error_code ignore;
        fs::rename(old, target, ignore);
        throw SimError("cannot rename '" + tmp.string() + "' to '" + target.string() + "': " + ec.message());
      }
      fs::remove_all(old, ec);
    } else {
      fs::rename(tmp, target, ec);
      if (ec)
        throw SimError("cannot rename '" + tmp.string() + "' to '" + target.string() + "': " + ec.message());
    }
  } catch (...) {
    std::error_code ignore;
    fs::remove_all(tmp, ignore);
    throw;
  }
}

}  // namespace zolt::sim
