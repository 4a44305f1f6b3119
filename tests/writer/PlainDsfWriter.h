#pragma once

#include <cstddef>
#include <functional>

#include "writer/SaveRun.h"
#include "writer/VrSaveSettingInternal.h"

namespace vorrel::test {

/// `SaveDsfFile` written down block by block, on one thread: what the real one, which takes many
/// blocks at a time, is held against.
/// @param beforeBlock  Called before each block, counted from 0.
VrError PlainSaveDsfFile(
    const VrSaveSettingInternal* setting, SaveRun& run,
    const std::function<void(std::size_t)>& beforeBlock = [](std::size_t) {});

}  // namespace vorrel::test
