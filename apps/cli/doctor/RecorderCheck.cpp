#include "doctor/RecorderCheck.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

namespace vorrel::cli {
namespace {

constexpr std::string_view kUsbDevices = "/sys/bus/usb/devices";
constexpr std::string_view kRuleName = "70-vorrel.rules";

std::string IdsText(unsigned vendorId, unsigned productId) {
    char text[16];
    std::snprintf(text, sizeof text, "%04x:%04x", vendorId, productId);
    return text;
}

std::optional<unsigned> Number(const std::optional<std::string>& text, int base) {
    unsigned value = 0;
    if (!text) {
        return std::nullopt;
    }
    const auto result = std::from_chars(text->data(), text->data() + text->size(), value, base);
    return result.ec == std::errc{} ? std::optional(value) : std::nullopt;
}

/// Whether the rule that the device manager reads, the first of its name, is for this model.
bool RuleIsInstalled(const SystemTexts& system, const SupportedModel& model) {
    for (const char* directory :
         {"/etc/udev/rules.d/", "/run/udev/rules.d/", "/usr/local/lib/udev/rules.d/",
          "/usr/lib/udev/rules.d/", "/lib/udev/rules.d/"}) {
        const std::string path = directory + std::string(kRuleName);
        if (!system.Exists(path)) {
            continue;
        }
        const std::string ids = IdsText(model.vendorId, model.productId);
        const std::string rule = system.Text(path);
        return rule.find('"' + ids.substr(0, 4) + '"') != std::string::npos &&
               rule.find('"' + ids.substr(5) + '"') != std::string::npos;
    }
    return false;
}

std::string RuleAdvice(const SystemTexts& system, const SupportedModel& model) {
    return RuleIsInstalled(system, model)
               ? "log in at the seat that it is plugged in to, or join the group audio; then "
                 "unplug "
                 "it and plug it in again"
               : "install " + std::string(kRuleName) +
                     " (make install PREFIX=/usr/local puts it in place), run 'udevadm control "
                     "--reload' as root, then unplug the recorder and plug it in again";
}

/// What to do about a node that cannot be used for `reason`.
std::string NodeAdvice(int reason, const std::string& permissionAdvice) {
    return reason == EACCES || reason == EPERM
               ? permissionAdvice
               : "see that the node is there: in a container it has to be passed on";
}

/// One USB device that carries the model's ids.
class Recorder {
public:
    Recorder(const SystemTexts& systemTexts, std::string directoryPath, Findings& allFindings)
        : system(systemTexts), directory(std::move(directoryPath)), findings(allFindings) {}

    /// @return Whether it is one that the engine takes.
    bool Check(const SupportedModel& model) {
        const std::string name = system.Line(directory + "/product").value_or("");
        if (name != model.name) {
            Say(Verdict::Note,
                "the device with the ids of a recorder calls itself \"" + name + "\", not \"" +
                    model.name + "\": it is not used",
                "");
            return false;
        }
        Say(Verdict::Good, model.name + " is plugged in at " + Port(), "");
        CheckNode(model);
        const std::vector<std::string> cards = Cards();
        if (cards.empty()) {
            Say(Verdict::Problem, "the kernel's USB audio driver has made no sound card of it",
                "run 'modprobe snd-usb-audio' as root, and see what 'dmesg' says about " + Port());
        }
        for (const std::string& card : cards) {
            CheckCard(card);
        }
        return true;
    }

private:
    void Say(Verdict verdict, const std::string& text, const std::string& advice) {
        findings.push_back({"recorder", verdict, text, advice});
    }
    std::string Port() const { return directory.substr(directory.rfind('/') + 1); }

    /// The node that the request for PCM or DSD goes through.
    void CheckNode(const SupportedModel& model) {
        const std::optional<unsigned> bus = Number(system.Line(directory + "/busnum"), 10);
        const std::optional<unsigned> device = Number(system.Line(directory + "/devnum"), 10);
        if (!bus || !device) {
            Say(Verdict::Problem, "it has gone while it was looked at", "plug it in again");
            return;
        }
        char node[40];
        std::snprintf(node, sizeof node, "/dev/bus/usb/%03u/%03u", *bus, *device);
        if (const int why = system.WhyNoAccess(node); why != 0) {
            Say(Verdict::Problem,
                std::string("its mode cannot be switched between PCM and DSD: ") + node + ": " +
                    std::strerror(why),
                NodeAdvice(why, RuleAdvice(system, model)));
        } else {
            Say(Verdict::Good, std::string("its mode can be switched through ") + node, "");
        }
    }

    /// Names of the sound cards of its interfaces: "card2".
    std::vector<std::string> Cards() const {
        std::vector<std::string> cards;
        for (const std::string& part : system.Names(directory)) {
            if (part.rfind(Port() + ":", 0) != 0) {
                continue;
            }
            for (const std::string& card : system.Names(directory + "/" + part + "/sound")) {
                if (card.rfind("card", 0) == 0) {
                    cards.push_back(card);
                }
            }
        }
        return cards;
    }

    void CheckCard(const std::string& card) {
        const std::string number = card.substr(4);
        bool captures = false;
        for (const std::string& part : system.Names("/proc/asound/" + card)) {
            if (part.rfind("pcm", 0) == 0 && part.back() == 'c') {
                captures = true;
                CheckStream(card, number, part.substr(3, part.size() - 4));
            }
        }
        if (!captures) {
            Say(Verdict::Problem, "sound card " + number + " of it has no capture stream",
                "unplug it and plug it in again; if that does not help, see what 'dmesg' says");
        }
    }

    void CheckStream(const std::string& card, const std::string& number,
                     const std::string& stream) {
        const std::string node = "/dev/snd/pcmC" + number + "D" + stream + "c";
        for (const std::string& needed : {"/dev/snd/controlC" + number, node}) {
            if (const int why = system.WhyNoAccess(needed); why != 0) {
                Say(Verdict::Problem,
                    "its sound cannot be read: " + needed + ": " + std::strerror(why),
                    NodeAdvice(why,
                               "log in at the seat that it is plugged in to, or join the group "
                               "audio"));
                return;
            }
        }
        const std::string status = "/proc/asound/" + card + "/pcm" + stream + "c/sub0/status";
        const std::optional<std::string> owner = system.Value(status, "owner_pid");
        if (!owner) {
            Say(Verdict::Good, "its sound can be read through " + node + ", and nobody holds it",
                "");
            return;
        }
        // The driver names a thread; its process is the one to know.
        const std::string process =
            system.Value("/proc/" + *owner + "/status", "Tgid").value_or(*owner);
        const std::optional<std::string> program = system.Line("/proc/" + process + "/comm");
        Say(Verdict::Problem,
            "it is in use by " +
                (program ? *program + " (process " + process + ")" : "another process"),
            "end that program, or let it use another device");
    }

    const SystemTexts& system;
    const std::string directory;
    Findings& findings;
};

}  // namespace

SupportedModel BuiltForModel() {
    return {VORREL_CLI_VENDOR_ID, VORREL_CLI_PRODUCT_ID, VORREL_CLI_MODEL};
}

Findings CheckRecorders(const SystemTexts& system, const SupportedModel& model) {
    Findings findings;
    std::size_t recorders = 0;
    for (const std::string& device : system.Names(std::string(kUsbDevices))) {
        const std::string directory = std::string(kUsbDevices) + "/" + device;
        const std::optional<unsigned> vendor = Number(system.Line(directory + "/idVendor"), 16);
        const std::optional<unsigned> product = Number(system.Line(directory + "/idProduct"), 16);
        if (vendor == model.vendorId && product == model.productId) {
            if (Recorder(system, directory, findings).Check(model)) {
                ++recorders;
            }
        } else if (vendor && product &&
                   system.Line(directory + "/product").value_or("") == model.name) {
            findings.push_back({"recorder", Verdict::Note,
                                "the " + model.name + " at " + device + " has the ids " +
                                    IdsText(*vendor, *product) + ", not " +
                                    IdsText(model.vendorId, model.productId) + ": it is not used",
                                ""});
        }
    }
    if (recorders == 0) {
        findings.push_back({"recorder", Verdict::Problem,
                            "no " + model.name + " (USB " +
                                IdsText(model.vendorId, model.productId) + ") is plugged in",
                            "connect it, switch it on, and see what 'dmesg' says"});
    }
    return findings;
}

Findings CheckSoundServers(const SystemTexts& system, const std::string& runtimeDirectory) {
    Findings findings;
    if (runtimeDirectory.empty()) {
        return findings;
    }
    constexpr std::pair<const char*, const char*> kServers[] = {{"/pipewire-0", "PipeWire"},
                                                                {"/pulse/native", "PulseAudio"}};
    for (const auto& [socket, server] : kServers) {
        if (system.Exists(runtimeDirectory + socket)) {
            findings.push_back({"sound server", Verdict::Note,
                                std::string(server) +
                                    " runs; it is asked to let go of the recorder when one is "
                                    "selected",
                                ""});
            break;  // the first often speaks the other's language, too
        }
    }
    return findings;
}

}  // namespace vorrel::cli
