#pragma once

#include <cstdint>

namespace ScObjects {
class ConveyContext;

namespace ConveyData {

// Launches the application of a specifier, unless it runs: leaves `parameters` (null for none)
// where it looks for them, and has the registry start it; with focus 0 behind other windows. 1 when
// it runs already or was started; 0 for a specifier that is none or one of this process, for an
// application without a path, without a main instance, and when it could not be started. Any
// thread, with no lock held.
int32_t launch(const char* targetText, const char* parameters, int32_t focus,
               ConveyContext& context);

} // namespace ConveyData
} // namespace ScObjects
