#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

// The library's own names; its header is not needed.
struct sd_bus;
struct sd_bus_message;
struct sd_bus_slot;

namespace vorrel {

/// A connection to a message bus by sd-bus of libsystemd, which is loaded when it is first asked
/// for: where it is missing there is no bus, and nothing else is. All waits are bounded. One thread
/// at a time.
class SdBus {
public:
    enum class Which { Session, System };
    using Clock = std::chrono::steady_clock;

    /// @return Null without the library or a bus, or when it does not answer in time.
    static std::unique_ptr<SdBus> Connect(Which which, Clock::time_point deadline);
    /// Closes the connection; names that it owns are free then.
    ~SdBus();
    SdBus(const SdBus&) = delete;
    SdBus& operator=(const SdBus&) = delete;

    struct Address {
        const char* service;
        const char* path;
        const char* interface;
    };
    /// The arguments of a call: nothing, or one text, or a number, or both of these in the order of
    /// `types` ("su": a text, then a number of 32 bits; 't' has 64, 'i' a sign).
    struct Arguments {
        const char* types = "";
        const char* text = nullptr;
        std::uint64_t first = 0;   ///< Of the first number type.
        std::uint64_t second = 0;  ///< Of the second.
    };
    /// @param answerType  'u', 'b', or 0 for an answer without a value, which is given as 0.
    /// @return Nothing on any failure, the deadline included.
    std::optional<std::uint32_t> Call(const Address& address, const char* method,
                                      const Arguments& arguments, char answerType,
                                      Clock::time_point deadline);
    /// A number property ('i', 'x' or 'u').
    std::optional<std::int64_t> Property(const Address& address, const char* name, char type,
                                         Clock::time_point deadline);
    std::optional<std::string> TextProperty(const Address& address, const char* name,
                                            Clock::time_point deadline);

    /// Answers calls of an object on this connection, in `Process`.
    /// @param answer  Gets each call; true when it has answered.
    bool Serve(const char* path, std::function<bool(sd_bus_message*)> answer);
    static bool IsCall(sd_bus_message* message, const char* interface, const char* method);
    static std::string ReadText(sd_bus_message* message);
    static std::optional<std::int32_t> ReadInt(sd_bus_message* message);
    static void AnswerBool(sd_bus_message* message, bool value);
    static void AnswerNumberVariant(sd_bus_message* message, std::int32_t value);
    static void AnswerLongVariant(sd_bus_message* message, std::int64_t value);
    static void AnswerTextVariant(sd_bus_message* message, const char* value);
    static void AnswerNumber(sd_bus_message* message, std::uint32_t value);
    static void AnswerNothing(sd_bus_message* message);

    /// Waits for traffic, until the deadline or until `wakeDescriptor` is readable, and handles
    /// what came. @return False when the connection is broken.
    bool Process(Clock::time_point deadline, int wakeDescriptor = -1);

private:
    explicit SdBus(sd_bus* connection) : bus(connection) {}

    static int OnMessage(sd_bus_message* message, void* self, void* error);

    sd_bus* const bus;
    sd_bus_slot* slot = nullptr;
    std::function<bool(sd_bus_message*)> served;
};

}  // namespace vorrel
