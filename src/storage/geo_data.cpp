#include "storage/geo_data.h"

#include <sys/stat.h>

#include "base/fs.h"

namespace qev::storage {

GeoData::GeoData(const Paths& paths) : paths_(paths) {}

void GeoData::ensureGeoDataFiles() const {
  for (const char* name : {"Country.mmdb", "geoip.metadb", "GeoSite.dat"}) {
    const fs::path source = paths_.libs / name;
    const fs::path destination = paths_.appSupport / name;
    struct stat st {};
    if (::stat(destination.c_str(), &st) == 0 && st.st_size > 0) continue;
    if (!base::itemExists(source)) continue;
    // No removal first: a copy never overwrites, so an empty file at the destination stays.
    std::error_code ec;
    fs::copy(source, destination, fs::copy_options::recursive, ec);
  }
}

}  // namespace qev::storage
