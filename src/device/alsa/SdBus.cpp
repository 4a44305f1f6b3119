#include "device/alsa/SdBus.h"

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/Trace.h"

namespace vorrel {
namespace {

using Handler = int (*)(sd_bus_message*, void*, void*);

/// The functions of libsystemd that are used.
struct Library {
    int (*openUser)(sd_bus**) = nullptr;
    int (*openSystem)(sd_bus**) = nullptr;
    sd_bus* (*closeUnref)(sd_bus*) = nullptr;
    int (*isReady)(sd_bus*) = nullptr;
    int (*process)(sd_bus*, sd_bus_message**) = nullptr;
    int (*wait)(sd_bus*, std::uint64_t) = nullptr;
    int (*getFd)(sd_bus*) = nullptr;
    int (*getEvents)(sd_bus*) = nullptr;
    int (*call)(sd_bus*, sd_bus_message*, std::uint64_t, void*, sd_bus_message**) = nullptr;
    int (*newMethodCall)(sd_bus*, sd_bus_message**, const char*, const char*, const char*,
                         const char*) = nullptr;
    int (*appendBasic)(sd_bus_message*, char, const void*) = nullptr;
    int (*readBasic)(sd_bus_message*, char, void*) = nullptr;
    int (*enterContainer)(sd_bus_message*, char, const char*) = nullptr;
    sd_bus_message* (*unref)(sd_bus_message*) = nullptr;
    int (*isMethodCall)(sd_bus_message*, const char*, const char*) = nullptr;
    int (*replyMethodReturn)(sd_bus_message*, const char*, ...) = nullptr;
    int (*addObject)(sd_bus*, sd_bus_slot**, const char*, Handler, void*) = nullptr;
    sd_bus_slot* (*slotUnref)(sd_bus_slot*) = nullptr;
    bool complete = false;

    Library() {
        // Never closed: the library may keep things of its own for the life of the process.
        void* handle = ::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            return;
        }
        complete = true;
        const auto load = [&](auto& function, const char* name) {
            void* symbol = ::dlsym(handle, name);
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(symbol);
            complete = complete && symbol != nullptr;
        };
        load(openUser, "sd_bus_open_user");
        load(openSystem, "sd_bus_open_system");
        load(closeUnref, "sd_bus_close_unref");
        load(isReady, "sd_bus_is_ready");
        load(process, "sd_bus_process");
        load(wait, "sd_bus_wait");
        load(getFd, "sd_bus_get_fd");
        load(getEvents, "sd_bus_get_events");
        load(call, "sd_bus_call");
        load(newMethodCall, "sd_bus_message_new_method_call");
        load(appendBasic, "sd_bus_message_append_basic");
        load(readBasic, "sd_bus_message_read_basic");
        load(enterContainer, "sd_bus_message_enter_container");
        load(unref, "sd_bus_message_unref");
        load(isMethodCall, "sd_bus_message_is_method_call");
        load(replyMethodReturn, "sd_bus_reply_method_return");
        load(addObject, "sd_bus_add_object");
        load(slotUnref, "sd_bus_slot_unref");
    }
};

const Library& Functions() {
    static const Library library;
    return library;
}

/// What is left until then, in microseconds; at least one, because zero stands for a default.
std::uint64_t MicrosecondsUntil(SdBus::Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - SdBus::Clock::now());
    return static_cast<std::uint64_t>(std::max<std::int64_t>(left.count(), 1));
}

/// Keeps signals from the calling thread for a scope: the library gives up what it waits for when
/// one is handled. The waits are bounded; a signal is handled behind them.
class SignalsHeldBack {
public:
    SignalsHeldBack() {
        sigset_t all;
        ::sigfillset(&all);
        std::ignore = ::pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SignalsHeldBack() { std::ignore = ::pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

private:
    sigset_t before{};
};

/// A message that is given up at the end of its scope.
class Message {
public:
    Message() = default;
    ~Message() {
        if (message != nullptr) {
            Functions().unref(message);
        }
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    sd_bus_message** Out() { return &message; }
    sd_bus_message* Get() const { return message; }

private:
    sd_bus_message* message = nullptr;
};

// NOLINTBEGIN(clang-analyzer-core.CallAndMessage): no bus is connected where a function is missing

/// Asks for a property of that type. @param value  Receives it, or where it is in the answer.
bool GetProperty(sd_bus* bus, const SdBus::Address& address, const char* name, char type,
                 SdBus::Clock::time_point deadline, Message& answer, void* value) {
    const Library& library = Functions();
    Message call;
    const std::array<char, 2> contents = {type, '\0'};
    const SignalsHeldBack signals;
    return library.newMethodCall(bus, call.Out(), address.service, address.path,
                                 "org.freedesktop.DBus.Properties", "Get") >= 0 &&
           library.appendBasic(call.Get(), 's', address.interface) >= 0 &&
           library.appendBasic(call.Get(), 's', name) >= 0 &&
           library.call(bus, call.Get(), MicrosecondsUntil(deadline), nullptr, answer.Out()) >= 0 &&
           library.enterContainer(answer.Get(), 'v', contents.data()) > 0 &&
           library.readBasic(answer.Get(), type, value) > 0;
}

}  // namespace

std::unique_ptr<SdBus> SdBus::Connect(Which which, Clock::time_point deadline) {
    const Library& library = Functions();
    if (!library.complete) {
        return nullptr;
    }
    const SignalsHeldBack signals;
    sd_bus* connection = nullptr;
    const int opened =
        which == Which::Session ? library.openUser(&connection) : library.openSystem(&connection);
    if (opened < 0) {
        return nullptr;
    }
    std::unique_ptr<SdBus> bus(new SdBus(connection));
    // The greeting is waited for here: a call would wait for it without an end.
    while (library.isReady(connection) <= 0) {
        const int handled = library.process(connection, nullptr);
        if (handled < 0 || Clock::now() >= deadline) {
            return nullptr;
        }
        if (handled == 0 && library.isReady(connection) <= 0 &&
            library.wait(connection, MicrosecondsUntil(deadline)) < 0) {
            return nullptr;
        }
    }
    return bus;
}

SdBus::~SdBus() {
    if (slot != nullptr) {
        Functions().slotUnref(slot);
    }
    // Not flushed: towards a bus that does not answer that would have no end.
    Functions().closeUnref(bus);
}

std::optional<std::uint32_t> SdBus::Call(const Address& address, const char* method,
                                         const Arguments& arguments, char answerType,
                                         Clock::time_point deadline) {
    const Library& library = Functions();
    Message call;
    if (library.newMethodCall(bus, call.Out(), address.service, address.path, address.interface,
                              method) < 0) {
        return std::nullopt;
    }
    std::uint64_t number = arguments.first;
    for (const char* type = arguments.types; *type != '\0'; ++type) {
        const auto narrow = static_cast<std::uint32_t>(number);
        const void* value = *type == 's'   ? static_cast<const void*>(arguments.text)
                            : *type == 't' ? static_cast<const void*>(&number)
                                           : &narrow;
        if (library.appendBasic(call.Get(), *type, value) < 0) {
            return std::nullopt;
        }
        number = *type == 's' ? number : arguments.second;
    }
    Message answer;
    const SignalsHeldBack signals;
    if (library.call(bus, call.Get(), MicrosecondsUntil(deadline), nullptr, answer.Out()) < 0) {
        return std::nullopt;
    }
    // A truth is read as a number, too: it has four bytes on the bus.
    std::uint32_t result = 0;
    if (answerType != '\0' && library.readBasic(answer.Get(), answerType, &result) <= 0) {
        return std::nullopt;
    }
    return result;
}

std::optional<std::int64_t> SdBus::Property(const Address& address, const char* name, char type,
                                            Clock::time_point deadline) {
    Message answer;
    std::int64_t wide = 0;
    std::int32_t narrow = 0;
    void* const value = type == 'x' ? static_cast<void*>(&wide) : &narrow;
    if (!GetProperty(bus, address, name, type, deadline, answer, value)) {
        return std::nullopt;
    }
    return type == 'x' ? wide : narrow;
}

std::optional<std::string> SdBus::TextProperty(const Address& address, const char* name,
                                               Clock::time_point deadline) {
    Message answer;  // which the text is part of
    const char* text = nullptr;
    if (!GetProperty(bus, address, name, 's', deadline, answer, &text)) {
        return std::nullopt;
    }
    return text;
}

int SdBus::OnMessage(sd_bus_message* message, void* self, void*) {
    // Out of a foreign library: nothing may be thrown through it.
    try {
        return static_cast<SdBus*>(self)->served(message) ? 1 : 0;
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "a call by the message bus is not answered: %s", error.what());
        return 0;
    }
}

bool SdBus::Serve(const char* path, std::function<bool(sd_bus_message*)> answer) {
    served = std::move(answer);
    return Functions().addObject(bus, &slot, path, &OnMessage, this) >= 0;
}

bool SdBus::IsCall(sd_bus_message* message, const char* interface, const char* method) {
    return Functions().isMethodCall(message, interface, method) > 0;
}

std::string SdBus::ReadText(sd_bus_message* message) {
    const char* text = nullptr;
    return Functions().readBasic(message, 's', &text) > 0 ? text : "";
}

std::optional<std::int32_t> SdBus::ReadInt(sd_bus_message* message) {
    std::int32_t value = 0;
    return Functions().readBasic(message, 'i', &value) > 0 ? std::optional(value) : std::nullopt;
}

void SdBus::AnswerBool(sd_bus_message* message, bool value) {
    std::ignore = Functions().replyMethodReturn(message, "b", value ? 1 : 0);
}

void SdBus::AnswerNumberVariant(sd_bus_message* message, std::int32_t value) {
    std::ignore = Functions().replyMethodReturn(message, "v", "i", value);
}

void SdBus::AnswerLongVariant(sd_bus_message* message, std::int64_t value) {
    std::ignore = Functions().replyMethodReturn(message, "v", "x", value);
}

void SdBus::AnswerTextVariant(sd_bus_message* message, const char* value) {
    std::ignore = Functions().replyMethodReturn(message, "v", "s", value);
}

void SdBus::AnswerNumber(sd_bus_message* message, std::uint32_t value) {
    std::ignore = Functions().replyMethodReturn(message, "u", value);
}

void SdBus::AnswerNothing(sd_bus_message* message) {
    std::ignore = Functions().replyMethodReturn(message, nullptr);
}

bool SdBus::Process(Clock::time_point deadline, int wakeDescriptor) {
    const Library& library = Functions();
    for (;;) {
        const int handled = library.process(bus, nullptr);
        if (handled < 0) {
            return false;
        }
        if (handled == 0) {
            break;
        }
    }
    // What is still to be written waits for room as what comes waits to be read.
    const int events = library.getEvents(bus);
    if (events < 0) {
        return false;
    }
    std::array<pollfd, 2> sources = {
        {{library.getFd(bus), static_cast<short>(events), 0}, {wakeDescriptor, POLLIN, 0}}};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const auto wait = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
    if (::poll(sources.data(), sources.size(), wait) < 0) {
        return errno == EINTR;  // after a signal the caller goes on
    }
    return library.process(bus, nullptr) >= 0;
}

// NOLINTEND(clang-analyzer-core.CallAndMessage)

}  // namespace vorrel
