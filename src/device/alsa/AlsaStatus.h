#pragma once

#include "device/backend/CoreAudioTypes.h"

namespace vorrel {

/// Whether a negative error number of libasound says that the card is not there any more.
bool IsGone(int error);
/// Whether it may say so: a card that is there answers these as well, while its nodes are made anew
/// or an endpoint of it is not there. Whoever gets one has to look whether the card stands.
bool MayBeGone(int error);

/// The audio layer's status for 0 or such an error number: '!dev' when the card is gone, '!hog'
/// when somebody else has it or this process may not open it, '!dat' for what it does not grant,
/// else 'what'.
OSStatus StatusOf(int error);

}  // namespace vorrel
