#pragma once

#include <string>
#include <vector>

namespace vorrel::cli {

/// How grave what was found is.
enum class Verdict {
    Good,
    Note,     ///< Worth knowing; recording works.
    Problem,  ///< Recording does not work, or not safely.
};

/// One thing that was looked at.
struct Finding {
    std::string
        topic;  ///< "recorder", "engine", "scheduling", "memory", "storage", "sound server".
    Verdict verdict = Verdict::Good;
    std::string text;
    std::string advice;  ///< What to do about it; "" = nothing.
};

using Findings = std::vector<Finding>;

}  // namespace vorrel::cli
