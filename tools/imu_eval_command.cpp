// zoltpano imu-eval [--data DIR] [--sets 8,9] [--gain G]: runs the gyroscope fusion library over
// recorded gyroscope traces with motion-capture truth (a rig turned about its vertical axis) and
// reports the yaw it integrates against the truth: the error after the whole turn, in degrees and
// degrees per minute, and the largest error on the way.
//
// Input, per set N in DIR: imu_setN.csv (t_unix_s, ..., gyro_r4_dps, gyro_r5_dps, gyro_r6_dps;
// rows 4, 5, 6 taken as the x, y, z rates, z the vertical) and vicon_setN.csv (t_unix_s, the
// rotation row-major, yaw_unwrapped_deg). The traces are not part of the project.
//
// The traces' rates come from an assumed nominal sensitivity, so their scale is only roughly
// right. Besides the plain run the command fits one gain per set (least squares of the yaw over
// the trace) and, with two or more sets, reports each set with the gain fitted on the others:
// that error belongs to the integrator and the sensor's bias, not to the unknown scale.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "sensor/gyroscope_lib/gyroscope_lib.h"
#include "tools/command.h"

namespace zolt::tools {
namespace {

struct ImuEvalArgs {
  std::string data = "../shared/data/imu";
  std::vector<int> sets{8, 9};
  double gain = 1.0;
};

struct Trace {
  std::vector<double> t;                 // s, as recorded
  std::vector<std::array<double, 3>> w;  // rad/s
  std::vector<double> truthT, truthYaw;  // s, deg (unwrapped)
};

// One span of the trace, from the start of the common window: the yaw change of the truth and
// of the integration, and their difference.
struct Span {
  double seconds = 0;
  double truthChange = 0, integratedChange = 0;  // deg
  double error() const { return integratedChange - truthChange; }
  double perMinute() const { return seconds > 0 ? error() * 60.0 / seconds : 0.0; }
};

struct Result {
  Span turn;               // until the truth has settled after the turn (+1 s)
  Span whole;              // the whole common window
  double worstError = 0;   // deg, largest |error| on the way
  double truthExtent = 0;  // deg, the largest |truth yaw| from the start
  double fittedGain = 1;   // least-squares gain of the integrated yaw
};

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Columns of a CSV with a header line, by name; throws a message naming the file.
std::vector<std::vector<double>> readColumns(const std::string& path,
                                             const std::vector<std::string>& names) {
  std::ifstream in(path);
  if (!in) throw CommandError("cannot read '" + path + "'");
  std::string line;
  std::getline(in, line);
  std::vector<std::string> header;
  {
    std::stringstream ss(line);
    for (std::string cell; std::getline(ss, cell, ',');) header.push_back(cell);
  }
  std::vector<size_t> at;
  for (const std::string& n : names) {
    auto it = std::find(header.begin(), header.end(), n);
    if (it == header.end()) throw CommandError("'" + path + "' has no column '" + n + "'");
    at.push_back(static_cast<size_t>(it - header.begin()));
  }
  std::vector<std::vector<double>> out(names.size());
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    std::vector<double> cells;
    std::stringstream ss(line);
    for (std::string cell; std::getline(ss, cell, ',');) cells.push_back(std::stod(cell));
    for (size_t i = 0; i < at.size(); ++i) {
      if (at[i] >= cells.size()) throw CommandError("short line in '" + path + "'");
      out[i].push_back(cells[at[i]]);
    }
  }
  return out;
}

Trace readTrace(const std::string& dir, int set) {
  const std::string n = std::to_string(set);
  Trace tr;
  const auto imu = readColumns(dir + "/imu_set" + n + ".csv",
                               {"t_unix_s", "gyro_r4_dps", "gyro_r5_dps", "gyro_r6_dps"});
  const double rad = M_PI / 180.0;
  tr.t = imu[0];
  for (size_t i = 0; i < tr.t.size(); ++i)
    tr.w.push_back({imu[1][i] * rad, imu[2][i] * rad, imu[3][i] * rad});
  const auto truth =
      readColumns(dir + "/vicon_set" + n + ".csv", {"t_unix_s", "yaw_unwrapped_deg"});
  tr.truthT = truth[0];
  tr.truthYaw = truth[1];
  if (tr.t.size() < 2 || tr.truthT.size() < 2)
    throw CommandError("set " + n + " holds fewer than two samples");
  return tr;
}

// Truth yaw at time t, linear between samples (t inside the truth's span).
double truthAt(const Trace& tr, double t) {
  auto it = std::upper_bound(tr.truthT.begin(), tr.truthT.end(), t);
  if (it == tr.truthT.begin()) return tr.truthYaw.front();
  if (it == tr.truthT.end()) return tr.truthYaw.back();
  const size_t i = static_cast<size_t>(it - tr.truthT.begin());
  const double a = (t - tr.truthT[i - 1]) / (tr.truthT[i] - tr.truthT[i - 1]);
  return tr.truthYaw[i - 1] + a * (tr.truthYaw[i] - tr.truthYaw[i - 1]);
}

// What the fusion library reported last: the yaw of the phone -> world matrix about world z.
double gLastYaw = 0;
void onRM(float* m, float*, float*) { gLastYaw = std::atan2(m[4], m[0]); }

Result evaluate(const Trace& tr, double gain) {
  android::callbackFunc callbacks{nullptr, onRM};
  android::Gyroscope_Lib lib;
  lib.initializeLib(5, &callbacks);
  Result r;
  const double start = std::max(tr.t.front(), tr.truthT.front());
  const double end = std::min(tr.t.back(), tr.truthT.back());
  std::vector<double> ti, yi;  // integrated yaw (deg, unwrapped) at each event in the window
  double unwrapped = 0, previous = 0;
  bool first = true;
  for (size_t i = 0; i < tr.t.size(); ++i) {
    float w[3] = {static_cast<float>(tr.w[i][0] * gain), static_cast<float>(tr.w[i][1] * gain),
                  static_cast<float>(tr.w[i][2] * gain)};
    const long long ns = std::llround((tr.t[i] - tr.t.front()) * 1e9);
    lib.processEvent(4, w, ns);
    double step = gLastYaw - previous;
    previous = gLastYaw;
    if (step > M_PI) step -= 2 * M_PI;
    if (step < -M_PI) step += 2 * M_PI;
    unwrapped += first ? 0.0 : step;
    first = false;
    if (tr.t[i] < start || tr.t[i] > end) continue;
    ti.push_back(tr.t[i]);
    yi.push_back(unwrapped * 180.0 / M_PI);
  }
  if (ti.size() < 2) throw CommandError("the gyroscope and truth traces do not overlap");
  std::vector<double> truth(ti.size());
  const double truth0 = truthAt(tr, ti.front());
  double sxy = 0, sxx = 0;
  for (size_t k = 0; k < ti.size(); ++k) {
    const double integrated = yi[k] - yi.front();
    truth[k] = truthAt(tr, ti[k]) - truth0;
    r.worstError = std::max(r.worstError, std::fabs(integrated - truth[k]));
    r.truthExtent = std::max(r.truthExtent, std::fabs(truth[k]));
    sxy += integrated * truth[k];
    sxx += integrated * integrated;
  }
  // The turn has ended once the truth stays within 2 degrees of where it ends; one second later
  // the rig is at rest.
  size_t settled = 0;
  for (size_t k = 0; k < ti.size(); ++k)
    if (std::fabs(truth[k] - truth.back()) > 2.0) settled = k;
  size_t turnEnd = settled;
  while (turnEnd + 1 < ti.size() && ti[turnEnd] < ti[settled] + 1.0) ++turnEnd;
  auto span = [&](size_t k) { return Span{ti[k] - ti.front(), truth[k], yi[k] - yi.front()}; };
  r.turn = span(turnEnd);
  r.whole = span(ti.size() - 1);
  r.fittedGain = sxx > 0 ? gain * sxy / sxx : gain;
  return r;
}

void printSpan(const char* label, const Span& s) {
  std::printf(
      "  %-30s %5.1f s: truth %+8.2f, integrated %+8.2f deg: error %+7.2f deg (%+6.2f deg/min)\n",
      label, s.seconds, s.truthChange, s.integratedChange, s.error(), s.perMinute());
}

void printResult(const std::string& label, const Result& r) {
  printSpan((label + ", after the turn").c_str(), r.turn);
  printSpan((label + ", whole trace").c_str(), r.whole);
  std::printf("  %-30s %.2f deg\n", (label + ", largest error").c_str(), r.worstError);
}

int runImuEval(const ImuEvalArgs& args) {
  std::map<int, Trace> traces;
  for (int set : args.sets) {
    const std::string n = std::to_string(set);
    const std::string imu = args.data + "/imu_set" + n + ".csv";
    const std::string truth = args.data + "/vicon_set" + n + ".csv";
    if (!fileExists(imu) || !fileExists(truth)) {
      printError("imu-eval", "no gyroscope trace for set " + n + ": '" + imu + "' and '" + truth +
                                 "' are needed; the traces are not part of the project and are"
                                 " not on every machine (--data names their folder)");
      return kExitFailure;
    }
    traces[set] = readTrace(args.data, set);
  }
  std::map<int, Result> plain;
  for (const auto& [set, tr] : traces) {
    const Result r = evaluate(tr, args.gain);
    plain[set] = r;
    std::printf("set %d: %zu events over %.1f s (%.0f Hz), truth turns up to %.0f deg\n", set,
                tr.t.size(), tr.t.back() - tr.t.front(),
                (tr.t.size() - 1) / (tr.t.back() - tr.t.front()), r.truthExtent);
    printResult(args.gain == 1.0 ? "as recorded" : "times --gain", r);
    std::printf("  %-30s %.4f\n", "gain fitted on this set", r.fittedGain);
  }
  if (traces.size() >= 2) {
    std::printf("each set with the mean gain fitted on the others:\n");
    for (const auto& [set, tr] : traces) {
      double sum = 0;
      int n = 0;
      for (const auto& [other, r] : plain)
        if (other != set) sum += r.fittedGain, ++n;
      const double gain = sum / n;
      char label[64];
      std::snprintf(label, sizeof label, "set %d x %.4f", set, gain);
      printResult(label, evaluate(tr, gain));
    }
  }
  return kExitOk;
}

Command setupImuEval(CLI::App& program) {
  auto [args, app] = addCommand<ImuEvalArgs>(
      program, "imu-eval",
      "Integrate recorded gyroscope traces and compare the yaw with motion capture");
  app->add_option("--data", args->data, "Folder with imu_setN.csv and vicon_setN.csv")
      ->capture_default_str();
  app->add_option("--sets", args->sets, "Sets to evaluate")->delimiter(',')->capture_default_str();
  app->add_option("--gain", args->gain, "Factor on every recorded rate")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  return {app, [args = args] { return runImuEval(*args); }};
}

const CommandRegistration kRegisterImuEval(setupImuEval);

}  // namespace
}  // namespace zolt::tools
