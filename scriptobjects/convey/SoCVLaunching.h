#pragma once

#include <cstdint>

namespace ScObjects {

class ConveyContext;
class CVResolution;

namespace ConveyUtils {

// Launches an application, unless it runs: leaves `parameters` (null for none) where it looks for
// them, and has the registry start it; with focus 0 in front of others. 1 when it runs already
// or was started; 0 for a specifier that is none or one of this process, for an application without
// a path, for texts beyond the bounds, without a main instance, without memory, and when it could
// not be started. Any thread, with no lock held.
//
// The target's text is completed first.
int32_t launchNamed(const char* target, const char* parameters, int32_t focus,
                    ConveyContext& context);
// For a target that has been completed, and of which it may be known whether it runs: a sender has
// just looked for it.
int32_t launchResolved(const CVResolution& resolution, const char* parameters, int32_t focus,
                       ConveyContext& context);

} // namespace ConveyUtils
} // namespace ScObjects
