#include "metrics.h"

namespace zr::host {

struct Metrics::Means
{
};

Metrics::Metrics(const std::string &, Facts)
{
    throw Failure(ExitCode::Usage, "serving metrics", 0,
                  "this program was built without prometheus-cpp, which serves them",
                  "a build with the package prometheus-cpp-dev, or --json");
}

Metrics::~Metrics() = default;

} // namespace zr::host
