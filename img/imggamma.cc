#include "imggamma.h"

#include <algorithm>
#include <limits>

void ka::GammaCurve::build(float exponent) {
  exponent_ = exponent;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    entries_[i] = float(std::pow(double(i) / 255.0, double(exponent)));
  }
}

ka::GammaCache::Entry& ka::GammaCache::entry_for(float gamma) {
  const auto found = std::ranges::find(entries_, gamma, &Entry::gamma);
  if (found != entries_.end()) return *found;
  Entry& entry = *std::ranges::min_element(entries_, {}, &Entry::stamp);
  entry.tables.gamma.build(gamma);
  entry.tables.inverse.build(1.0F / gamma);
  entry.gamma = gamma;
  return entry;
}

// After the last stamp that fits, all are scaled down: what was used long before still counts as
// older.
void ka::GammaCache::stamp(Entry& entry) {
  constexpr std::uint32_t scale = 65536;
  entry.stamp = ++clock_;
  if (clock_ != std::numeric_limits<std::uint32_t>::max()) return;
  for (Entry& each : entries_) each.stamp /= scale;
  clock_ /= scale;
}

const ka::GammaTables& ka::GammaCache::tables(float gamma) {
  Entry& entry = entry_for(gamma);
  stamp(entry);
  return entry.tables;
}

bool ka::GammaCache::holds(float gamma) const {
  return std::ranges::find(entries_, gamma, &Entry::gamma) != entries_.end();
}
