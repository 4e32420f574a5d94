#pragma once

#include "storage/profile.h"

namespace qev::storage {

// Puts the shipped geographic databases into the data folder for the core.
class GeoData {
 public:
  explicit GeoData(const Paths& paths);

  // Copies "Country.mmdb", "geoip.metadb" and "GeoSite.dat" from the libraries folder unless a
  // non-empty copy is already there (a user-updated one is never replaced). A missing source is
  // skipped and a zero-byte destination is left as it is. Silent; never fails outward.
  void ensureGeoDataFiles() const;

 private:
  const Paths& paths_;
};

}  // namespace qev::storage
