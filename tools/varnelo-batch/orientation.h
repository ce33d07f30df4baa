#pragma once

// Keeping photos upright without their metadata: ReadOrientation and AddOrientation, which the
// metadata module now provides.

#include "metadata.h"
