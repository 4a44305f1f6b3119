// Put in front of every file that carries mutants (scripts/mutate.py): all of a program's mutants
// are compiled in at once, and VORREL_MUTANT in the environment says which one is awake.
#pragma once

#include <cstdlib>
#include <type_traits>

namespace mutant {

inline const int awake = [] {
    const char* const text = std::getenv("VORREL_MUTANT");
    return text == nullptr ? -1 : std::atoi(text);
}();
/// Which mutants were come by, of all threads: for the choice of tests. Bytes, so that a lost race
/// loses nothing.
inline constexpr int kMost = 20'000;
inline volatile unsigned char reached[kMost];

/// True for the one that is awake. What is computed while compiling is never changed.
constexpr bool On(int number) {
    if (std::is_constant_evaluated()) {
        return false;
    }
    reached[number] = 1;
    return awake == number;
}

template <class Value>
constexpr Value Constant(int number, Value value) {
    if (!On(number)) {
        return value;
    }
    if constexpr (std::is_enum_v<Value>) {
        return static_cast<Value>(static_cast<std::underlying_type_t<Value>>(value) + 1);
    } else if constexpr (std::is_same_v<Value, bool>) {
        return !value;
    } else if constexpr (std::is_floating_point_v<Value>) {
        return value * static_cast<Value>(1.25) + static_cast<Value>(0.001);
    } else {
        return static_cast<Value>(value + 1);
    }
}

/// `answer`, but a code that nothing returns where `number` is awake.
template <class Value>
constexpr Value Result(int number, Value answer) {
    return On(number) ? static_cast<Value>(-77) : answer;
}

/// A switch that has lost the case `label`.
template <class Value, class Label>
constexpr Label WithoutCase(int number, const Value& value, Label label) {
    return On(number) && value == label ? static_cast<Label>(0x5A) : static_cast<Label>(value);
}

/// A comparison's mutants, in the place of its operator: `a < Less(1) < b`. The first mutant moves
/// the bound, the second turns the answer round; an equality has the second one only.
template <class Left, int kind>
struct Half {
    const Left& left;
    int number;
};
enum { kLess, kLessEqual, kGreater, kGreaterEqual, kEqual, kUnequal };
template <int kind>
struct Operator {
    int number;
};

#define MUTANT_OPERATOR(kind, symbol, moved)                                              \
    template <class Left>                                                                 \
    constexpr Half<Left, kind> operator symbol(const Left& left, Operator<kind> middle) { \
        return {left, middle.number};                                                     \
    }                                                                                     \
    template <class Left, class Right>                                                    \
    constexpr bool operator symbol(Half<Left, kind> half, const Right& right) {           \
        if (On(half.number)) {                                                            \
            return half.left moved right;                                                 \
        }                                                                                 \
        const bool answer = half.left symbol right;                                       \
        return On(half.number + 1) ? !answer : answer;                                    \
    }
MUTANT_OPERATOR(kLess, <, <=)
MUTANT_OPERATOR(kLessEqual, <=, <)
MUTANT_OPERATOR(kGreater, >, >=)
MUTANT_OPERATOR(kGreaterEqual, >=, >)
#undef MUTANT_OPERATOR

#define MUTANT_EQUALITY(kind, symbol)                                                     \
    template <class Left>                                                                 \
    constexpr Half<Left, kind> operator symbol(const Left& left, Operator<kind> middle) { \
        return {left, middle.number};                                                     \
    }                                                                                     \
    template <class Left, class Right>                                                    \
    constexpr bool operator symbol(Half<Left, kind> half, const Right& right) {           \
        const bool answer = half.left symbol right;                                       \
        return On(half.number) ? !answer : answer;                                        \
    }
MUTANT_EQUALITY(kEqual, ==)
MUTANT_EQUALITY(kUnequal, !=)
#undef MUTANT_EQUALITY

}  // namespace mutant
