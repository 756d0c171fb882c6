// Quick-look picture of a run result: a top view raster of the "FWF" cloud, coloured by MTA
// zone, height, reflectance or classification, with a legend and a scale bar, as PNG.
#pragma once

#include <string>

#include "tessal/Bundle.hpp"

namespace quillo::cli {

enum class QuicklookColor { Zone, Height, Reflectance, Classification };

struct QuicklookOptions {
  QuicklookColor color = QuicklookColor::Zone;
  int size = 800;  // width and height of the picture in pixels
};

// Colour of a zone (255: no zone) or a class in the categorical pictures.
struct Rgb {
  unsigned char r, g, b;
  bool operator==(const Rgb&) const = default;
};
Rgb zoneColor(unsigned value);
Rgb classColor(unsigned value);

// Writes `outPath` atomically. Throws CliError for a bad result, size or output.
void writeQuicklook(const Tessal::BundlePtr& result, const std::string& resultName,
                    const std::string& outPath, const QuicklookOptions& options);

}  // namespace quillo::cli
