#pragma once

namespace Varnelo {

// Suspends the calling thread for the given number of milliseconds; returns usleep's result.
int Sleep_ms(int milliseconds);

}  // namespace Varnelo
