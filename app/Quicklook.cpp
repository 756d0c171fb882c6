// Streams the positions (and the coloured value) of a result twice, bounds then raster, and
// draws legend, scale bar and labels with stb_easy_font before writing the PNG.
#include "app/Quicklook.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <vector>

#include "app/CliError.hpp"
#include "app/LasWriter.hpp"
#include "tessal/Schema.hpp"

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_easy_font.h>
#include <stb/stb_image_write.h>

namespace quillo::cli {

namespace schema = Tessal::schema;

namespace fs = std::filesystem;

Rgb zoneColor(unsigned value) {
  static const Rgb palette[] = {{230, 25, 75},   {60, 180, 75},  {0, 130, 200},  {245, 130, 48},
                                {145, 30, 180},  {70, 240, 240}, {240, 50, 230}, {210, 245, 60},
                                {250, 190, 212}, {0, 128, 128},  {170, 110, 40}, {128, 0, 0}};
  if (value == 255) return {128, 128, 128};
  return palette[value % std::size(palette)];
}

Rgb classColor(unsigned value) {
  switch (value) {
    case 1:
      return {170, 170, 170};  // unclassified
    case 2:
      return {160, 110, 50};  // ground
    case 3:
    case 4:
    case 5:
      return {40, 160, 40};  // vegetation
    case 6:
      return {220, 60, 40};  // building
    case 7:
      return {255, 0, 255};  // noise
    case 9:
      return {40, 90, 230};  // water
    default:
      return zoneColor(value + 3);
  }
}

namespace {

constexpr int kBand = 44;  // legend strip at the bottom
const Rgb kBackground{16, 16, 16};
const Rgb kInk{240, 240, 240};

bool categorical(QuicklookColor c) {
  return c == QuicklookColor::Zone || c == QuicklookColor::Classification;
}

// Blue to yellow through green: readable and ordered.
Rgb ramp(double t) {
  t = std::clamp(t, 0.0, 1.0);
  const double stops[4][3] = {{68, 1, 84}, {59, 82, 139}, {33, 145, 140}, {253, 231, 37}};
  const double s = t * 3.0;
  const int i = std::min(2, static_cast<int>(s));
  const double f = s - i;
  auto mix = [&](int c) {
    return static_cast<unsigned char>(stops[i][c] + (stops[i + 1][c] - stops[i][c]) * f);
  };
  return {mix(0), mix(1), mix(2)};
}

struct Image {
  int w, h;
  std::vector<unsigned char> rgb;
  Image(int width, int height) : w(width), h(height), rgb(std::size_t(width) * height * 3) {
    fill(0, 0, w, h, kBackground);
  }
  void set(int x, int y, Rgb c) {
    if (x < 0 || y < 0 || x >= w || y >= h) return;
    unsigned char* p = &rgb[(std::size_t(y) * w + x) * 3];
    p[0] = c.r;
    p[1] = c.g;
    p[2] = c.b;
  }
  void fill(int x0, int y0, int x1, int y1, Rgb c) {
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) set(x, y, c);
  }
  void text(int x, int y, const std::string& s, Rgb c) {
    std::vector<float> quads(s.size() * 270 + 64);  // 16-byte vertices, 4 per quad
    std::string copy = s;
    unsigned char col[4] = {c.r, c.g, c.b, 255};
    const int n = stb_easy_font_print(0, 0, copy.data(), col, quads.data(),
                                      static_cast<int>(quads.size() * sizeof(float)));
    for (int q = 0; q < n; ++q) {
      const float* v = &quads[std::size_t(q) * 16];
      fill(x + int(v[0]), y + int(v[1]), x + int(v[8]), y + int(v[9]), c);
    }
  }
};

struct Bounds {
  double minX = std::numeric_limits<double>::infinity(), minY = minX, minV = minX;
  double maxX = -minX, maxY = -minX, maxV = -minX;
  std::map<unsigned, std::size_t> categories;
  std::size_t points = 0;
};

// The value that colours point k: zone, class, height or reflectance.
struct ValueSource {
  QuicklookColor color;
  Vorlap::StrongPtr<Tessal::MemArray<1, unsigned char>> category;
  Vorlap::StrongPtr<Tessal::MemArray<1, float>> reflectance;
  ValueSource(FragmentReader& r, QuicklookColor c) : color(c) {
    if (c == QuicklookColor::Zone) category = r.get<unsigned char>(schema::kMTA);
    if (c == QuicklookColor::Classification)
      category = r.get<unsigned char>(schema::kClassification);
    if (c == QuicklookColor::Reflectance) reflectance = r.get<float>(schema::kReflectance);
  }
  double operator()(std::size_t k, double z) const {
    if (category) return category->get(k);
    if (reflectance) return reflectance->get(k);
    return z;
  }
};

// Calls visit(position, value) for every point with a finite position and value, fragment
// by fragment (one fragment in memory at a time).
template <class Visit>
void forEachPoint(const ResultGrid& grid, QuicklookColor color, Visit visit) {
  for (std::size_t f = 0; f < grid.fragments.size(); ++f) {
    FragmentReader r(grid, f);
    auto p = r.positions();
    const ValueSource value(r, color);
    for (std::size_t k = 0; k < p->size(); ++k) {
      const auto q = p->get(k);
      const double v = value(k, q.z);
      if (std::isfinite(q.x) && std::isfinite(q.y) && std::isfinite(v)) visit(q, v);
    }
  }
}

// An evenly thinned sample of the values (at most kSampleSize, whatever the cloud's size), so
// the colour ramp can span the values' 0.5 to 99.5 % range: a bird at 40 m from the aircraft
// would otherwise squeeze the terrain into one colour.
class ValueSample {
 public:
  void add(double v) {
    if (seen_++ % stride_) return;
    values_.push_back(float(v));
    if (values_.size() < kSampleSize) return;
    for (std::size_t k = 0; 2 * k < values_.size(); ++k) values_[k] = values_[2 * k];
    values_.resize((values_.size() + 1) / 2);
    stride_ *= 2;
  }
  double quantile(double q) {
    if (values_.empty()) return 0.0;
    const auto at = values_.begin() + std::ptrdiff_t(q * double(values_.size() - 1));
    std::nth_element(values_.begin(), at, values_.end());
    return *at;
  }

 private:
  static constexpr std::size_t kSampleSize = 1 << 18;
  std::vector<float> values_;
  std::uint64_t seen_ = 0, stride_ = 1;
};

Bounds scan(const ResultGrid& grid, QuicklookColor color) {
  Bounds b;
  ValueSample sample;
  forEachPoint(grid, color, [&](const auto& q, double v) {
    b.minX = std::min(b.minX, q.x), b.maxX = std::max(b.maxX, q.x);
    b.minY = std::min(b.minY, q.y), b.maxY = std::max(b.maxY, q.y);
    b.minV = std::min(b.minV, v), b.maxV = std::max(b.maxV, v);
    if (categorical(color)) b.categories[static_cast<unsigned>(v)]++;
    sample.add(v);
    ++b.points;
  });
  if (!categorical(color) && b.points > 0)
    b.minV = sample.quantile(0.005), b.maxV = sample.quantile(0.995);
  return b;
}

// Map from cloud to picture: one scale for both axes, north up, centred. A cloud wider than
// tall gets a lower picture, so a short strip does not sit in a mostly empty square.
struct View {
  double x0, y0, perPixel;
  int width, height, left, top;
  int splat;  // side of the square each point covers, so sparse clouds show no gaps
  View(const Bounds& b, int size) {
    width = size;
    const double ratio = (b.maxY - b.minY) / std::max(b.maxX - b.minX, 1e-3);
    const double fitted = std::ceil((size - 8) * ratio) + 8;
    const double most = size - kBand;
    height = static_cast<int>(std::min(most, std::max(fitted, std::min(96.0, most))));
    perPixel = std::max(
        {(b.maxX - b.minX) / (width - 8), (b.maxY - b.minY) / (height - 8), 1e-3 / (width - 8)});
    x0 = b.minX;
    y0 = b.maxY;
    left = static_cast<int>((width - (b.maxX - b.minX) / perPixel) / 2);
    top = static_cast<int>((height - (b.maxY - b.minY) / perPixel) / 2);
    const double area = std::max(b.maxX - b.minX, perPixel) * std::max(b.maxY - b.minY, perPixel);
    const double spacing = std::sqrt(area / static_cast<double>(b.points));
    splat = std::clamp(static_cast<int>(std::ceil(spacing / perPixel)), 1, 8);
  }
  int px(double x) const { return left + static_cast<int>((x - x0) / perPixel); }
  int py(double y) const { return top + static_cast<int>((y0 - y) / perPixel); }
};

struct Cell {
  double top = -std::numeric_limits<double>::infinity(), value = 0, sum = 0;
  std::uint32_t count = 0;
};

void add(Cell& c, double z, double v) {
  if (z > c.top) c.top = z, c.value = v;  // the highest point shows
  c.sum += v;
  c.count++;
}

std::vector<Cell> raster(const ResultGrid& grid, const View& view, QuicklookColor color) {
  std::vector<Cell> cells(std::size_t(view.width) * view.height);
  forEachPoint(grid, color, [&](const auto& q, double v) {
    const int x0 = view.px(q.x) - (view.splat - 1) / 2;
    const int y0 = view.py(q.y) - (view.splat - 1) / 2;
    for (int y = std::max(0, y0); y < std::min(view.height, y0 + view.splat); ++y)
      for (int x = std::max(0, x0); x < std::min(view.width, x0 + view.splat); ++x)
        add(cells[std::size_t(y) * view.width + x], q.z, v);
  });
  return cells;
}

Rgb colourOf(const Cell& c, QuicklookColor color, const Bounds& b) {
  if (color == QuicklookColor::Zone) return zoneColor(static_cast<unsigned>(c.value));
  if (color == QuicklookColor::Classification) return classColor(static_cast<unsigned>(c.value));
  const double v = color == QuicklookColor::Reflectance ? c.sum / c.count : c.value;
  return ramp(b.maxV > b.minV ? (v - b.minV) / (b.maxV - b.minV) : 0.5);
}

std::string number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, std::fabs(v) >= 100 ? "%.0f" : "%.1f", v);
  return text;
}

void drawLegend(Image& img, QuicklookColor color, const Bounds& b) {
  const int y = img.h - kBand + 8;
  int x = 8;
  if (categorical(color)) {
    img.text(x, y + 2, color == QuicklookColor::Zone ? "ZONE" : "CLASS", kInk);
    x += 40;
    for (const auto& [value, count] : b.categories) {
      if (x > img.w / 2 + 40) break;
      (void)count;
      img.fill(x, y, x + 10, y + 10,
               color == QuicklookColor::Zone ? zoneColor(value) : classColor(value));
      const std::string label =
          value == 255 && color == QuicklookColor::Zone ? "NONE" : std::to_string(value);
      img.text(x + 13, y + 2, label, kInk);
      x += 20 + stb_easy_font_width(const_cast<char*>(label.c_str()));
    }
    return;
  }
  img.text(x, y + 2, number(b.minV), kInk);
  x += 44;
  for (int i = 0; i < 100; ++i) img.fill(x + i, y, x + i + 1, y + 10, ramp(i / 99.0));
  img.text(x + 106, y + 2, number(b.maxV) + (color == QuicklookColor::Height ? " M" : " DB"), kInk);
}

void drawScaleBar(Image& img, const View& view) {
  const double target = view.perPixel * img.w / 4;
  const double magnitude = std::pow(10.0, std::floor(std::log10(target)));
  double length = magnitude;
  for (double m : {2.0, 5.0, 10.0})
    if (m * magnitude <= target) length = m * magnitude;
  const int pixels = std::max(1, static_cast<int>(length / view.perPixel));
  const int x1 = img.w - 12, x0 = x1 - pixels, y = img.h - 14;
  img.fill(x0, y, x1, y + 3, kInk);
  img.fill(x0, y - 6, x0 + 2, y + 3, kInk);
  img.fill(x1 - 2, y - 6, x1, y + 3, kInk);
  const std::string label = (length >= 1 ? number(length) : std::to_string(length)) + " M";
  img.text(x0, y - 16, label, kInk);
}

}  // namespace

void writeQuicklook(const Tessal::BundlePtr& result, const std::string& resultName,
                    const std::string& outPath, const QuicklookOptions& options) {
  if (options.size < 64 || options.size > 16384)
    throw CliError(kUsage, "--size must be between 64 and 16384 pixels");
  const ResultGrid grid = openResultGrid(result, resultName);
  const Bounds b = scan(grid, options.color);
  if (b.points == 0) throw CliError(kInput, resultName + ": the result holds no points");
  const View view(b, options.size);
  const auto cells = raster(grid, view, options.color);
  Image img(view.width, view.height + kBand);
  for (int y = 0; y < view.height; ++y)
    for (int x = 0; x < view.width; ++x) {
      const Cell& c = cells[std::size_t(y) * view.width + x];
      if (c.count) img.set(x, y, colourOf(c, options.color, b));
    }
  drawLegend(img, options.color, b);
  drawScaleBar(img, view);
  const fs::path target(outPath);
  const std::string tmp =
      (target.parent_path() / ("." + target.filename().string() + ".partial")).string();
  if (!stbi_write_png(tmp.c_str(), img.w, img.h, 3, img.rgb.data(), img.w * 3)) {
    std::error_code ec;
    fs::remove(tmp, ec);
    throw CliError(kOutput, outPath + ": cannot write the picture (does the folder exist?)");
  }
  std::error_code ec;
  fs::rename(tmp, outPath, ec);
  if (ec) {
    fs::remove(tmp, ec);
    throw CliError(kOutput, outPath + ": cannot move the finished picture into place");
  }
}

}  // namespace quillo::cli
