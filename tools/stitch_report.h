// The report picture of a stitched sweep: the panorama with the key frames' outlines and seam
// bands drawn on it, above a plot of the engine's offsets and result codes over the frames.
#pragma once

#include <string>

#include <opencv2/core.hpp>

namespace zolt::tools {

struct StitchResult;

// Draws the report (BGR, 1600 pixels wide).
cv::Mat drawReport(const StitchResult& r);
// Draws and writes it as PNG; false when the file cannot be written.
bool writeReport(const StitchResult& r, const std::string& path);

}  // namespace zolt::tools
