#include "device/alsa/SdBus.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "PrivateBus.h"
#include "device/alsa/DeviceReservation.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

constexpr SdBus::Address kService = {"test.vorrel.Service", "/test/vorrel", "test.vorrel.Service"};

class SdBusTest : public testing::Test {
protected:
    void SetUp() override {
        if (!bus.IsThere()) {
            GTEST_SKIP() << "no dbus-daemon or no libsystemd";
        }
        client = SdBus::Connect(SdBus::Which::Session, Soon());
        ASSERT_NE(client, nullptr);
    }

    PrivateBus bus;
    std::unique_ptr<SdBus> client;
};

TEST_F(SdBusTest, ACallThatCannotBeWrittenIsNotSent) {
    const SdBus::Address noPath = {kService.service, "no path", kService.interface};
    const std::string notUtf8 = "\xff";

    EXPECT_EQ(client->Call(noPath, "Anything", {}, 'u', Soon()), std::nullopt);
    EXPECT_EQ(client->Property(noPath, "Anything", 'i', Soon()), std::nullopt);
    EXPECT_EQ(
        client->Call(kDaemon, "NameHasOwner", {.types = "s", .text = notUtf8.c_str()}, 'b', Soon()),
        std::nullopt);

    EXPECT_EQ(
        client->Call(kDaemon, "NameHasOwner", {.types = "s", .text = kDaemon.service}, 'b', Soon()),
        1U);  // and the connection is as good as before
}

TEST_F(SdBusTest, AnAnswerOfAnotherTypeIsNone) {
    const FakeService service(kService.service, kService.path, [](sd_bus_message* call) {
        if (SdBus::IsCall(call, kService.interface, "Nothing")) {
            SdBus::AnswerNothing(call);
        } else if (SdBus::IsCall(call, "org.freedesktop.DBus.Properties", "Get")) {
            SdBus::AnswerTextVariant(call, "twelve");
        } else {
            SdBus::AnswerNumber(call, 12);
        }
        return true;
    });

    EXPECT_EQ(client->Call(kService, "Number", {}, 'u', Soon()), 12U);
    EXPECT_EQ(client->Call(kService, "Number", {}, 'b', Soon()), std::nullopt);
    EXPECT_EQ(client->Call(kService, "Nothing", {}, 'u', Soon()), std::nullopt);
    EXPECT_EQ(client->Call(kService, "Nothing", {}, '\0', Soon()), 0U);
    EXPECT_EQ(client->Property(kService, "Text", 'i', Soon()), std::nullopt);
    EXPECT_EQ(client->Property(kService, "Text", 'x', Soon()), std::nullopt);
}

TEST_F(SdBusTest, AServiceThatThrowsSaysSoAndServesTheNextCall) {
    TraceCapture trace;
    bool first = true;
    const FakeService service(kService.service, kService.path, [&first](sd_bus_message* call) {
        if (std::exchange(first, false)) {
            throw std::runtime_error("no answer today");
        }
        SdBus::AnswerNumber(call, 12);
        return true;
    });

    EXPECT_EQ(client->Call(kService, "Number", {}, 'u', Soon()), std::nullopt);
    EXPECT_EQ(client->Call(kService, "Number", {}, 'u', Soon()), 12U);

    ASSERT_EQ(trace.Lines().size(), 1U);
    EXPECT_NE(trace.Lines()[0].find("a call by the message bus is not answered: no answer today"),
              std::string::npos);
}

TEST_F(SdBusTest, AnArgumentThatIsNotThereIsReadAsNothing) {
    std::string text = "untouched";
    std::optional<std::int32_t> number = 1;
    {
        const FakeService service(kService.service, kService.path, [&](sd_bus_message* call) {
            text = SdBus::ReadText(call);
            number = SdBus::ReadInt(call);
            SdBus::AnswerNothing(call);
            return true;
        });
        EXPECT_EQ(client->Call(kService, "Nothing", {}, '\0', Soon()), 0U);
    }

    EXPECT_EQ(text, "");
    EXPECT_EQ(number, std::nullopt);
}

/// Asks with the library itself, which is loaded at run time only.
class ReservedCard {
public:
    explicit ReservedCard(int number)
        : service("org.freedesktop.ReserveDevice1.Audio" + std::to_string(number)),
          path("/org/freedesktop/ReserveDevice1/Audio" + std::to_string(number)) {
        Load<int (*)(sd_bus**)>("sd_bus_open_user")(&bus);
    }
    ~ReservedCard() { Load<sd_bus* (*)(sd_bus*)>("sd_bus_flush_close_unref")(bus); }
    ReservedCard(const ReservedCard&) = delete;
    ReservedCard& operator=(const ReservedCard&) = delete;

    /// A property that is a text; "none" without one.
    std::string Text(const char* property) {
        using Get =
            int (*)(sd_bus*, const char*, const char*, const char*, const char*, void*, char**);
        char* text = nullptr;
        const int result = Load<Get>("sd_bus_get_property_string")(
            bus, service.c_str(), path.c_str(), "org.freedesktop.ReserveDevice1", property, nullptr,
            &text);
        std::string answer = result < 0 ? "none" : text;
        std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): the library's
        return answer;
    }

private:
    template <class Function>
    static Function Load(const char* name) {
        static void* const library = ::dlopen("libsystemd.so.0", RTLD_NOW);
        return reinterpret_cast<Function>(::dlsym(library, name));
    }

    const std::string service;
    const std::string path;
    sd_bus* bus = nullptr;
};

TEST_F(SdBusTest, AReservationTellsWhoHoldsTheCard) {
    DeviceReservation reservation(7);
    ASSERT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
    ReservedCard card(7);

    EXPECT_EQ(card.Text("ApplicationName"), "vorrel");
    EXPECT_EQ(card.Text("ApplicationDeviceName"), "");
    EXPECT_EQ(card.Text("ColourOfTheCard"), "none");
}

}  // namespace
}  // namespace vorrel::test
