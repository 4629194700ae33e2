// Records that the parts of vel_check share. Places count from the top left corner, in pixels.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace check {

// What is found about a pair. The order is that of the summary, the worst last.
enum class Verdict {
  kIdentical,     // the files hold the same bytes; they were not decoded
  kSamePixels,    // no sample that counts differs
  kWithinLimits,  // samples differ, and no limit is exceeded
  kNew,           // a candidate without a reference
  kMissing,       // a reference without a candidate
  kDifferent,     // a limit is exceeded, or sizes, channels, layers or parts differ
  kFailed         // one of the files could not be judged
};
inline constexpr int kVerdicts = 7;

struct Rectangle {
  int x, y, width, height;
  bool operator==(const Rectangle&) const = default;
};

// What a limit bounds. Of kPsnr and kSsim small values are bad, of all others large ones.
enum class Measure {
  kMaximum,      // largest difference of a sample; 8 and 16 bits are scaled to 0..1
  kMean,         // of the absolute differences
  kRms,          // root of the mean of their squares
  kPsnr,         // dB
  kShare,        // of the pixels with a sample that differs by more than the tolerance, 0 to 1
  kPixels,       // their number
  kDistance,     // vel_diff's maximum difference, in percent
  kSsim,         // mean structural similarity, 1: equal
  kFlip,         // mean of the FLIP map, 0: equal
  kFlipMaximum,  // its maximum
};
inline constexpr int kMeasures = 10;

struct Limit {
  Measure measure;
  double bound;
  bool operator==(const Limit&) const = default;
};

// How a pair is judged: the options of the command line, and what vel_check.toml says for its name.
struct Rules {
  double tolerance = 0;     // a sample differs when it does so by more than this
  std::vector<Limit> fail;  // all must hold; none: no pixel may differ (share 0)
  std::vector<Limit> warn;
  std::string mask;  // file: white counts, grey weighs, black is ignored; "": none
  std::vector<Rectangle> ignored;
  bool ignores_antialiasing = false;
  std::string layer;  // as img_file::layer; "": all layers and parts
  double pixels_per_degree = 67.0206;
  bool ssim = false, flip = false;  // measured although no limit asks for them
  bool operator==(const Rules&) const = default;
};

// Two files of one name; "" for the side that lacks it.
struct Pair {
  std::string name;  // the relative path, or the reference as it was given
  std::string reference, candidate;
};

// Of the samples of one channel, or of all channels together.
struct ChannelResult {
  std::string name;  // "R", "diffuse.G", ...; "" for all
  double maximum = 0, mean = 0, rms = 0;
  double psnr = 0;                              // dB; infinite where nothing differs
  double share = 0;                             // of the pixels that count, 0 to 1
  std::int64_t pixels = 0;                      // that differ
  int x = 0, y = 0;                             // place of the maximum
  std::int64_t not_a_number = 0, infinite = 0;  // samples, in either file
};

// A file as it was when it was judged, by which a later run recognises it.
struct FileStamp {
  std::int64_t bytes = -1;    // -1: absent
  std::int64_t modified = 0;  // nanoseconds since 1970
  bool operator==(const FileStamp&) const = default;
};

struct Size {
  int width = 0, height = 0;  // 0: not known
  bool operator==(const Size&) const = default;
};

struct Result {
  Pair pair;
  Verdict verdict = Verdict::kFailed;
  std::string reason;                 // of different and failed; one line
  std::vector<std::string> warnings;  // one line each
  Size reference_size, candidate_size;
  FileStamp reference_stamp, candidate_stamp;
  std::string rules;  // checksum of the Rules, hexadecimal
  std::string mask;   // of the Rules, for the report
  std::vector<Rectangle> ignored;
  // Absent where the files were not compared.
  std::optional<ChannelResult> all;
  std::vector<ChannelResult> channels;
  std::optional<double> distance;  // percent; 8-bit colors only
  std::string distance_verdict;    // vel_diff's word with its own default threshold
  std::optional<double> ssim, flip, flip_maximum;
  std::vector<Limit> exceeded, warned;  // of the limits to fail and to warn
};

}  // namespace check
