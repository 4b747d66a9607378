#pragma once

// All that an application needs: the layer itself (`Convey`), its messages, handlers and replies,
// the messenger that takes functions, and the specifiers by which it names others. The header of
// each says what its operations do.
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVMessaging.h"
#include "scriptobjects/convey/SoCVMessenger.h"
#include "scriptobjects/convey/SoCVReply.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
