#include "utils.h"

#include <unistd.h>

namespace Varnelo {

int Sleep_ms(int milliseconds) { return usleep(static_cast<useconds_t>(milliseconds) * 1000); }

}  // namespace Varnelo
