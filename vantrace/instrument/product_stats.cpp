// The namespace "productStats": timing records of the product kept.
#include "zandor/performance/product_stats.hpp"

#include "vantrace/instrument/method_tables.hpp"

namespace vantrace {

namespace stats = performance::productStats;

namespace {

constinit const MethodRow rows[] = {
    {"logEventTime", stats::logEventTime},
    {"logEventBeginTime", stats::logEventBeginTime},
    {"logEventEndTime", stats::logEventEndTime},
};

}  // namespace

constinit const MethodTable productStatsMethods = rows;

}  // namespace vantrace
