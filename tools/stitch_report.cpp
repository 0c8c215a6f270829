#include "tools/stitch_report.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "tools/stitch_progress.h"
#include "tools/stitch_session.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

constexpr int kWidth = 1600;
constexpr int kPlotHeight = 420;
constexpr int kMaxPanoHeight = 600;
constexpr size_t kMaxDrawn = 40;
constexpr int kSeamBand =
    33;  // the merger searches each seam in a band this wide about the frame centre

cv::Scalar codeColour(int code) {
  if (code == SUCCESS) return {90, 180, 90};
  if ((code & 0xF000) == 0x5000) return {170, 170, 170};
  if ((code & 0xF000) == 0x8000) return {0, 200, 240};
  return {40, 40, 220};
}

void text(cv::Mat& m, const std::string& s, cv::Point p, double scale = 0.5,
          cv::Scalar c = {230, 230, 230}) {
  cv::putText(m, s, p, cv::FONT_HERSHEY_SIMPLEX, scale, c, 1, cv::LINE_AA);
}

cv::Mat drawPanorama(const StitchResult& r) {
  if (r.panorama.empty()) {
    cv::Mat m(200, kWidth, CV_8UC3, cv::Scalar(40, 40, 40));
    text(m, "no panorama", {20, 110}, 1.0);
    return m;
  }
  const double s = std::min(static_cast<double>(kWidth) / r.panorama.cols,
                            static_cast<double>(kMaxPanoHeight) / r.panorama.rows);
  cv::Mat scaled;
  cv::resize(r.panorama, scaled,
             cv::Size(std::max(1, cvRound(r.panorama.cols * s)),
                      std::max(1, cvRound(r.panorama.rows * s))),
             0, 0, cv::INTER_AREA);
  // The panorama as written, then a copy carrying the key frames and seams.
  cv::Mat m(2 * scaled.rows + 34, kWidth, CV_8UC3, cv::Scalar(30, 30, 30));
  const int x0 = (kWidth - scaled.cols) / 2;
  scaled.copyTo(m(cv::Rect(x0, 0, scaled.cols, scaled.rows)));
  cv::Mat view = m(cv::Rect(x0, scaled.rows + 4, scaled.cols, scaled.rows));
  scaled.copyTo(view);

  const cv::Point origin = panoramaOrigin(r);
  const bool horiz = ZOLT_PANO_IsHorizontalSweep(r.direction);
  const cv::Scalar outline[2] = {{255, 200, 0}, {255, 0, 255}};
  std::vector<std::pair<cv::Point, cv::Point>> centres;
  // Beyond kMaxDrawn key frames the outlines would hide the picture: every n-th is drawn.
  const size_t every = (r.keyFrames.size() + kMaxDrawn - 1) / kMaxDrawn;
  size_t drawn = 0;
  for (size_t i = 0; i < r.keyFrames.size(); ++i) {
    if (every > 1 && i % every != 0 && i + 1 != r.keyFrames.size()) continue;
    const cv::Rect k = r.keyFrames[i].canvas - origin;
    const cv::Rect ks(cvRound(k.x * s), cvRound(k.y * s), cvRound(k.width * s),
                      cvRound(k.height * s));
    cv::rectangle(view, ks, outline[drawn++ % 2], 1, cv::LINE_AA);
    if (i == 0) continue;
    // The seam runs within kSeamBand / 2 pixels of the new frame's centre line.
    if (horiz) {
      const int cx = ks.x + ks.width / 2;
      centres.emplace_back(cv::Point(cx, ks.y), cv::Point(cx, ks.y + ks.height - 1));
    } else {
      const int cy = ks.y + ks.height / 2;
      centres.emplace_back(cv::Point(ks.x, cy), cv::Point(ks.x + ks.width - 1, cy));
    }
  }
  for (const auto& c : centres) cv::line(view, c.first, c.second, {0, 0, 255}, 1);
  char caption[256];
  std::snprintf(caption, sizeof caption,
                "panorama %dx%d; below: %zu key frames placed (outlines%s), seams within %d px of "
                "the red lines; canvas %dx%d",
                r.panorama.cols, r.panorama.rows, r.keyFrames.size(),
                every > 1 ? (", 1 in " + std::to_string(every) + " drawn").c_str() : "",
                kSeamBand / 2, r.canvasWidth, r.canvasHeight);
  text(m, caption, {10, 2 * scaled.rows + 24});
  if (r.captures.size() > 1) {
    const CaptureRecord& c = r.captures[static_cast<size_t>(r.chosenCapture)];
    text(m,
         "capture " + std::to_string(c.number) + " of " + std::to_string(r.captures.size()) +
             ", frames " + std::to_string(c.firstFrame) + "-" + std::to_string(c.lastFrame),
         {kWidth - 330, 2 * scaled.rows + 24});
  }
  return m;
}

cv::Mat drawPlot(const StitchResult& r) {
  cv::Mat m(kPlotHeight, kWidth, CV_8UC3, cv::Scalar(25, 25, 25));
  const int left = 70, right = kWidth - 20, top = 50, bottom = kPlotHeight - 60;
  const int n = static_cast<int>(r.frames.size());
  if (n == 0) return m;
  int lo = 0, hi = 1;
  for (const FrameRecord& f : r.frames) {
    lo = std::min({lo, f.offset.x, f.offset.y});
    hi = std::max({hi, f.offset.x, f.offset.y});
  }
  auto px = [&](int i) { return left + (n > 1 ? (right - left) * i / (n - 1) : 0); };
  auto py = [&](double v) { return bottom - cvRound((bottom - top) * (v - lo) / (hi - lo)); };
  cv::rectangle(m, {left, top}, {right, bottom}, {90, 90, 90});
  cv::line(m, {left, py(0)}, {right, py(0)}, {70, 70, 70});
  text(m, std::to_string(hi), {5, top + 5}, 0.4);
  text(m, std::to_string(lo), {5, bottom}, 0.4);
  text(m, "0", {5, py(0) + 4}, 0.4);
  // Result codes as a strip above the plot, key frames as ticks below it.
  for (int i = 0; i < n; ++i) {
    const int x0 = px(i), x1 = std::max(x0 + 1, i + 1 < n ? px(i + 1) : right);
    cv::rectangle(m, {x0, top - 22}, {x1, top - 6}, codeColour(r.frames[i].code), cv::FILLED);
    if (r.frames[i].keyFrame) cv::line(m, {x0, bottom + 2}, {x0, bottom + 10}, {255, 200, 0});
  }
  // Where a new capture starts (it feeds the refused frames again, so the frame numbers step
  // back there).
  for (int i = 1; i < n; ++i) {
    if (r.frames[i].capture == r.frames[i - 1].capture) continue;
    cv::line(m, {px(i), top - 24}, {px(i), bottom + 12}, {240, 240, 240}, 1);
    text(m,
         "capture " + std::to_string(r.frames[i].capture) + " from frame " +
             std::to_string(r.frames[i].frame),
         {px(i) + 4, top + 14}, 0.4);
  }
  for (int i = 1; i < n; ++i) {
    const FrameRecord& a = r.frames[i - 1];
    const FrameRecord& b = r.frames[i];
    cv::line(m, {px(i - 1), py(a.offset.x)}, {px(i), py(b.offset.x)}, {255, 150, 60}, 1,
             cv::LINE_AA);
    cv::line(m, {px(i - 1), py(a.offset.y)}, {px(i), py(b.offset.y)}, {80, 220, 80}, 1,
             cv::LINE_AA);
  }
  text(m, "frame " + std::to_string(r.frames.front().frame), {left, bottom + 28}, 0.4);
  text(m, "frame " + std::to_string(r.frames.back().frame), {right - 90, bottom + 28}, 0.4);
  text(m, "offset x (blue), offset y (green), key frames (ticks below), result codes (strip above)",
       {left, kPlotHeight - 12}, 0.45);
  // Legend of the codes seen.
  int lx = left;
  for (int code : r.codesSeen) {
    const std::string h = code == SUCCESS ? "ok" : hintText(code);
    cv::rectangle(m, {lx, 8}, {lx + 14, 22}, codeColour(code), cv::FILLED);
    text(m, h, {lx + 18, 20}, 0.45);
    lx += 30 + 9 * static_cast<int>(h.size());
  }
  return m;
}

}  // namespace

cv::Mat drawReport(const StitchResult& r) {
  cv::Mat pano = drawPanorama(r);
  cv::Mat plot = drawPlot(r);
  cv::Mat out;
  cv::vconcat(pano, plot, out);
  return out;
}

bool writeReport(const StitchResult& r, const std::string& path) {
  try {
    return cv::imwrite(path, drawReport(r));
  } catch (const cv::Exception&) {
    return false;
  }
}

}  // namespace zolt::tools
