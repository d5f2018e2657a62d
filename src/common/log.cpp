#include "common/log.h"

namespace ceilmeter {}
