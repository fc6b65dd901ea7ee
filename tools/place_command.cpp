// qmxutil find, gps: where things are.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "commands.h"
#include "output.h"
#include "qmxutil_userdata.h"

namespace {

namespace fs = std::filesystem;

// ---- find

struct FindOptions {
  std::string dir;
  std::string name;
  bool as_json = false;
};

// What the library does not look at, as its header says; empty when it looks at all.
std::string passed_over(const FindOptions& options) {
  constexpr size_t kLongestPath = 62, kLongestEntry = 127, kMostDirectories = 32;
  size_t directories = 0, too_long = 0;
  std::error_code error;
  for (fs::directory_iterator it(options.dir, error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;
    if (it->is_symlink(ignored) || !it->is_directory(ignored)) continue;
    const size_t length = it->path().native().size();
    const bool fits = length <= kLongestPath && length + 1 + options.name.size() <= kLongestEntry;
    ++(fits ? directories : too_long);
  }
  if (error) throw CommandError(options.dir + ": " + error.message());
  if (too_long > 0) return std::to_string(too_long) + " not looked at: their paths are too long";
  return directories > kMostDirectories ? "only the first 32 of " + std::to_string(directories) + " looked at"
                                        : "";
}

void run_find(const FindOptions& options) {
  const std::string left_out = passed_over(options);
  char path[128];
  const bool found = QMXUtil_FileSearch(options.dir.c_str(), options.name.c_str(), path, sizeof path) != 0;
  if (!found) {
    throw CommandError("no subdirectory of " + options.dir + " has " + options.name +
                       (left_out.empty() ? "" : "; " + left_out));
  }
  if (!left_out.empty()) std::fprintf(stderr, "qmxutil: of the subdirectories %s\n", left_out.c_str());
  if (options.as_json) {
    print_json({{"path", path}});
  } else {
    std::printf("%s\n", path);
  }
}

void add_find(const Command& app) {
  const auto options = std::make_shared<FindOptions>();
  const Command command =
      app.add("find", "Find the first subdirectory that contains an entry, and print the entry's path");
  command.option("DIR", options->dir, "the directory above").required();
  command.option("NAME", options->name, "the entry's name").required();
  command.option("--json", options->as_json, "print JSON");
  command.footer("Example: qmxutil find /media/card DCIM");
  command.runs([options] { run_find(*options); });
}

// ---- gps

struct GpsOptions {
  double latitude = 0;
  std::string north_south;
  double longitude = 0;
  std::string east_west;
  bool as_json = false;
};

// Degrees and minutes as one number: at most `most` degrees, and less than 60 minutes.
void require_position(const char* name, double value, int most) {
  if (!(value >= 0 && value <= most * 100)) {
    throw UsageError(std::string(name) + ": not between 0 and " + std::to_string(most) + " degrees");
  }
  if (std::fmod(value, 100) >= 60) throw UsageError(std::string(name) + ": 60 minutes or more");
}

void run_gps(const GpsOptions& options) {
  require_position("LAT", options.latitude, 90);
  require_position("LON", options.longitude, 180);
  const GpsMapPoint point =
      QMXUtil_GPSConvToMap(options.north_south == "N", options.east_west == "E",
                           static_cast<float>(options.latitude), static_cast<float>(options.longitude));
  if (options.as_json) {
    print_json({{"latitude", point.latitude},
                {"longitude", point.longitude},
                {"latitudeE5", point.latitudeE5},
                {"longitudeE5", point.longitudeE5}});
  } else {
    std::printf("%.5f %.5f\n", static_cast<double>(point.latitude), static_cast<double>(point.longitude));
  }
}

void add_gps(const Command& app) {
  const auto options = std::make_shared<GpsOptions>();
  const Command command = app.add("gps", "Convert an NMEA 0183 position to decimal degrees");
  command.option("LAT", options->latitude, "ddmm.mmmm").required();
  command.option("NS", options->north_south, "N or S").required().one_of({"N", "S"});
  command.option("LON", options->longitude, "dddmm.mmmm").required();
  command.option("EW", options->east_west, "E or W").required().one_of({"E", "W"});
  command.option("--json", options->as_json, "print JSON");
  command.footer("Example: qmxutil gps 4530.0 N 00915.5 W");
  command.runs([options] { run_gps(*options); });
}

}  // namespace

void add_place_commands(const Command& app) {
  add_find(app);
  add_gps(app);
}
