#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "doctor/RecorderCheck.h"
#include "doctor/SchedulingCheck.h"
#include "doctor/StorageCheck.h"
#include "doctor/SystemTexts.h"
#include "support/SmallVolume.h"
#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

const SupportedModel kModel = {0x6666, 0x0770, "KD-WV770"};

/// A system of files below a directory.
class DoctorTest : public testing::Test {
protected:
    void Put(const std::string& path, const std::string& text = "") {
        const std::filesystem::path file = directory.Path() + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }
    /// A recorder at a port, with card `card` and what is needed to record from it.
    void PutRecorder(const std::string& port, int card, int address) {
        const std::string usb = "/sys/bus/usb/devices/" + port;
        Put(usb + "/idVendor", "6666\n");
        Put(usb + "/idProduct", "0770\n");
        Put(usb + "/product", "KD-WV770\n");
        Put(usb + "/busnum", "1\n");
        Put(usb + "/devnum", std::to_string(address) + "\n");
        const std::string number = std::to_string(card);
        Put(usb + "/" + port + ":1.0/sound/card" + number + "/number", number);
        Put("/dev/bus/usb/001/00" + std::to_string(address));
        Put("/dev/snd/pcmC" + number + "D0c");
        Put("/dev/snd/controlC" + number);
        Put("/proc/asound/card" + number + "/pcm0c/sub0/status", "closed\n");
    }
    void Remove(const std::string& path) { std::filesystem::remove_all(directory.Path() + path); }
    Findings Recorders() const { return CheckRecorders(system, kModel); }
    /// How many findings of a verdict have a text with `part` in it.
    static std::ptrdiff_t Count(const Findings& findings, Verdict verdict,
                                const std::string& part = "") {
        return std::count_if(findings.begin(), findings.end(), [&](const Finding& finding) {
            return finding.verdict == verdict && finding.text.find(part) != std::string::npos;
        });
    }

    const test::TempDirectory directory;
    const SystemTexts system{directory.Path()};
};

TEST_F(DoctorTest, WithoutARecorderThatIsTheProblem) {
    const Findings findings = Recorders();

    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].topic, "recorder");
    EXPECT_EQ(findings[0].verdict, Verdict::Problem);
    EXPECT_EQ(findings[0].text, "no KD-WV770 (USB 6666:0770) is plugged in");
    EXPECT_NE(findings[0].advice, "");
}

TEST_F(DoctorTest, ARecorderThatCanBeUsedIsAllGood) {
    PutRecorder("1-2", 3, 7);

    const Findings findings = Recorders();

    EXPECT_EQ(Count(findings, Verdict::Good), 3);
    EXPECT_EQ(Count(findings, Verdict::Good, "plugged in at 1-2"), 1);
    EXPECT_EQ(Count(findings, Verdict::Good, "/dev/bus/usb/001/007"), 1);
    EXPECT_EQ(Count(findings, Verdict::Good, "/dev/snd/pcmC3D0c"), 1);
    EXPECT_EQ(findings.size(), 3U);
}

TEST_F(DoctorTest, TwoRecordersAreBothLookedAt) {
    PutRecorder("1-2", 3, 7);
    PutRecorder("1-4.1", 4, 8);
    Remove("/dev/snd/pcmC4D0c");

    const Findings findings = Recorders();

    EXPECT_EQ(Count(findings, Verdict::Good, "is plugged in"), 2);
    EXPECT_EQ(Count(findings, Verdict::Problem), 1);
    EXPECT_EQ(Count(findings, Verdict::Problem, "/dev/snd/pcmC4D0c: No such file"), 1);
}

TEST_F(DoctorTest, AnotherNameOrOtherIdsAreNoRecorder) {
    PutRecorder("1-2", 3, 7);
    Put("/sys/bus/usb/devices/1-2/product", "KD-WV770 \n");
    PutRecorder("1-3", 4, 8);
    Put("/sys/bus/usb/devices/1-3/idProduct", "0771\n");

    const Findings findings = Recorders();

    EXPECT_EQ(Count(findings, Verdict::Note, "calls itself \"KD-WV770 \""), 1);
    EXPECT_EQ(Count(findings, Verdict::Problem, "no KD-WV770"), 1);
    EXPECT_EQ(Count(findings, Verdict::Note, "has the ids 6666:0771, not 6666:0770"), 1);
    EXPECT_EQ(Count(findings, Verdict::Good), 0);
}

TEST_F(DoctorTest, ANodeThatIsMissingIsNoMatterOfPermissions) {
    PutRecorder("1-2", 3, 7);
    Remove("/dev/bus/usb/001/007");

    const Findings findings = Recorders();

    ASSERT_EQ(Count(findings, Verdict::Problem, "cannot be switched between PCM and DSD"), 1);
    EXPECT_NE(findings[1].advice.find("in a container"), std::string::npos);
}

TEST_F(DoctorTest, ANodeWithoutWritePermissionAsksForTheRule) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root may write everything";
    }
    PutRecorder("1-2", 3, 7);
    std::filesystem::permissions(directory.Path() + "/dev/bus/usb/001/007",
                                 std::filesystem::perms::owner_read);

    Findings findings = Recorders();
    ASSERT_EQ(Count(findings, Verdict::Problem, "Permission denied"), 1);
    EXPECT_EQ(findings[1].advice.rfind("install 70-vorrel.rules", 0), 0U);

    Put("/usr/lib/udev/rules.d/70-vorrel.rules",
        "ATTR{idVendor}==\"6666\", ATTR{idProduct}==\"0770\", TAG+=\"uaccess\"\n");
    findings = Recorders();
    EXPECT_EQ(findings[1].advice.rfind("log in at the seat", 0), 0U);

    // One of the same name that is read instead, and grants nothing.
    Put("/etc/udev/rules.d/70-vorrel.rules");
    findings = Recorders();
    EXPECT_EQ(findings[1].advice.rfind("install 70-vorrel.rules", 0), 0U);
}

TEST_F(DoctorTest, TheControlNodeIsNeededToo) {
    PutRecorder("1-2", 3, 7);
    Remove("/dev/snd/controlC3");

    EXPECT_EQ(Count(Recorders(), Verdict::Problem, "/dev/snd/controlC3: No such file"), 1);
}

TEST_F(DoctorTest, ARecorderWithoutASoundCardAsksForTheDriver) {
    PutRecorder("1-2", 3, 7);
    Remove("/sys/bus/usb/devices/1-2/1-2:1.0");

    const Findings findings = Recorders();

    ASSERT_EQ(Count(findings, Verdict::Problem, "no sound card"), 1);
    EXPECT_NE(findings.back().advice.find("snd-usb-audio"), std::string::npos);
}

TEST_F(DoctorTest, ACardWithoutACaptureStreamIsSaid) {
    PutRecorder("1-2", 3, 7);
    std::filesystem::rename(directory.Path() + "/proc/asound/card3/pcm0c",
                            directory.Path() + "/proc/asound/card3/pcm0p");

    EXPECT_EQ(Count(Recorders(), Verdict::Problem, "no capture stream"), 1);
}

TEST_F(DoctorTest, WhoHoldsTheRecorderIsNamed) {
    PutRecorder("1-2", 3, 7);
    Put("/proc/asound/card3/pcm0c/sub0/status",
        "state: RUNNING\nowner_pid   : 4711\ntrigger_time: 12.5\n");
    Put("/proc/4711/status", "Name:\tworker\nTgid:\t4700\n");  // a thread of the program
    Put("/proc/4711/comm", "worker\n");
    Put("/proc/4700/comm", "mixer\n");

    EXPECT_EQ(Count(Recorders(), Verdict::Problem, "in use by mixer (process 4700)"), 1);

    Remove("/proc/4700");
    EXPECT_EQ(Count(Recorders(), Verdict::Problem, "in use by another process"), 1);
}

TEST_F(DoctorTest, ARecorderThatGoesMeanwhileIsSaid) {
    PutRecorder("1-2", 3, 7);
    Remove("/sys/bus/usb/devices/1-2/devnum");

    EXPECT_EQ(Count(Recorders(), Verdict::Problem, "has gone"), 1);
}

TEST_F(DoctorTest, SoundServersAreNotedOnce) {
    EXPECT_TRUE(CheckSoundServers(system, "").empty());
    EXPECT_TRUE(CheckSoundServers(system, "/run/user/1000").empty());

    Put("/run/user/1000/pulse/native");
    EXPECT_EQ(Count(CheckSoundServers(system, "/run/user/1000"), Verdict::Note, "PulseAudio"), 1);

    Put("/run/user/1000/pipewire-0");
    const Findings findings = CheckSoundServers(system, "/run/user/1000");
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(Count(findings, Verdict::Note, "PipeWire"), 1);
}

TEST_F(DoctorTest, SchedulingIsDirectByRealtimeKitOrRefused) {
    EXPECT_EQ(Count(CheckScheduling(system, {true, {}}), Verdict::Good), 2);
    EXPECT_EQ(Count(CheckScheduling(system, {false, {}}), Verdict::Note, "refused"), 1);

    Put("/run/dbus/system_bus_socket");
    Put("/usr/share/dbus-1/system-services/org.freedesktop.RealtimeKit1.service");
    EXPECT_EQ(Count(CheckScheduling(system, {false, {}}), Verdict::Good, "RealtimeKit"), 1);
}

TEST_F(DoctorTest, TooLittleLockableMemoryIsNoted) {
    EXPECT_EQ(Count(CheckScheduling(system, {true, 65'536}), Verdict::Note, "65536 bytes"), 1);
    EXPECT_EQ(Count(CheckScheduling(system, {true, 8U << 20}), Verdict::Note), 0);
}

TEST_F(DoctorTest, TheLimitsOfThisProcessCanBeTriedOut) {
    const ProcessLimits limits = TryProcessLimits();

    if (::geteuid() != 0 && limits.lockedBytes) {
        EXPECT_GT(*limits.lockedBytes, 0U);
    }
    // Whatever they are, there is something to say of both.
    EXPECT_EQ(CheckScheduling(system, limits).size(), 2U);
}

TEST_F(DoctorTest, APlaceWithRoomIsTriedOutAndLeftAsItWas) {
    const Findings findings = CheckStorage(directory.Path());

    const auto speed = std::find_if(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.text.find("MB/s") != std::string::npos;
    });
    ASSERT_NE(speed, findings.end());
    // The verdict is that of the speed which it tells, but for its rounding.
    const double told = std::stod(speed->text.substr(speed->text.find_first_of("0123456789")));
    EXPECT_TRUE(speed->verdict == JudgeSpeed((told - 0.5) * 1e6).verdict ||
                speed->verdict == JudgeSpeed((told + 0.5) * 1e6).verdict)
        << speed->text;
    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST_F(DoctorTest, ASpeedIsJudgedByWhatStereoMakes) {
    // Two channels of 4 bytes and as many previews of 2, four times over: at 384 kHz 18,432,000
    // bytes a second, at 96 kHz 4,608,000.
    EXPECT_EQ(JudgeSpeed(18'432'000).verdict, Verdict::Good);
    EXPECT_EQ(JudgeSpeed(18'431'999).verdict, Verdict::Note);
    EXPECT_EQ(JudgeSpeed(4'608'000).verdict, Verdict::Note);
    EXPECT_EQ(JudgeSpeed(4'607'999).verdict, Verdict::Problem);
    EXPECT_NE(JudgeSpeed(250e6).text.find("takes 250 MB/s"), std::string::npos);
}

TEST_F(DoctorTest, AFullVolumeInMemoryIsAProblemAndSaidToBeInMemory) {
    const test::SmallVolume volume(1 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }

    const Findings findings = CheckStorage(volume.Path());

    EXPECT_EQ(Count(findings, Verdict::Problem, " of stereo at 96 kHz"), 1);
    EXPECT_EQ(Count(findings, Verdict::Note, "kept in memory"), 1);
}

TEST_F(DoctorTest, AMissingPlaceIsAProblem) {
    EXPECT_EQ(Count(CheckStorage(directory.Path() + "/none"), Verdict::Problem), 1);
}

TEST_F(DoctorTest, WhatAKilledRunHasLeftIsNoted) {
    Put("/vorrel-abc123/tmpAbC123", "left");
    Put("/vorrel-backup/mine", "not ours");

    const Findings findings = CheckStorage(directory.Path());

    EXPECT_EQ(Count(findings, Verdict::Note, "has left 4 bytes in " + directory.Path()), 1);
    EXPECT_EQ(Count(findings, Verdict::Note, "has left"), 1);
}

}  // namespace
}  // namespace vorrel::cli
