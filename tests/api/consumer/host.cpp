#include <vorrel/Vorrel.h>

struct Delegate final : IVorrelDelegate {
    void Vorrel_NotifyOperationProc(VrRecOperation) override {}
    void Vorrel_NotifyStreamPosProc(double) override {}
    void Vorrel_NotifyConvertPosProc(double) override {}
    void Vorrel_NotifyErrorMessageProc(VrMessageKind, const std::string&) override {}
};

int main() {
    std::vector<std::string> names;
    const bool ready = Vorrel_Init(std::make_shared<Delegate>()) == VrSuccess &&
                       Vorrel_GetAudioDevices(&names) == VrSuccess && !names.empty() &&
                       Vorrel_SetAudioDevice(names.front().c_str()) == VrSuccess &&
                       vorrel::MainQueue::Dispatch() == 0;
    return ready ? 0 : 1;
}
