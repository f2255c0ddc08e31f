// A camera object whose controls are a script, put in the place of the real one behind an open filter: tests see which
// operations a property request becomes, and choose what they answer.
#pragma once

#include "camera/uvc_camera.h"
#include "driver/uvc_device.h"
#include "tests/driver/capture_rig.h"
#include "uvc_drv/properties.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <utility>

namespace uvc::driver_test {

class ScriptedControls final : public UvcCamera {
  public:
    struct Control {
        NTSTATUS get = STATUS_SUCCESS;
        NTSTATUS set = STATUS_SUCCESS;
        // What a get writes behind the property header, or from the first byte of a block without header.
        std::vector<ULONG> words;
    };

    explicit ScriptedControls(Rig &rig)
        : UvcCamera(rig.computer.Pdo(), nullptr),
          device(*UvcDevice::From(KsGetDeviceForDeviceObject(rig.computer.Pdo()->AttachedDevice))),
          original_(std::exchange(device.camera, this)) {}
    ~ScriptedControls() { device.camera = original_; }

    bool ItemExists(ULONG set, ULONG id) override { return controls.contains({set, id}); }

    NTSTATUS GetControl(ULONG set, ULONG id, ULONG kind, void *buffer, ULONG length) override {
        Log("get", set, id, kind, length);
        auto control = controls.find({set, id});
        if (control == controls.end())
            return STATUS_NOT_IMPLEMENTED;
        auto *words = static_cast<UCHAR *>(buffer) + HeaderSize(kind);
        found.assign(words, static_cast<UCHAR *>(buffer) + length);
        std::copy_n(control->second.words.begin(), control->second.words.size(), reinterpret_cast<ULONG *>(words));
        return control->second.get;
    }

    NTSTATUS SetControl(ULONG set, ULONG id, ULONG kind, void *buffer, ULONG length) override {
        auto *words = static_cast<UCHAR *>(buffer) + HeaderSize(kind);
        LONG value = 0;
        ULONG flags = 0;
        std::memcpy(&value, words, sizeof(value));
        std::memcpy(&flags, words + sizeof(value), sizeof(flags));
        Log("set", set, id, kind, length) << " " << value << "/" << flags;
        found.assign(words, static_cast<UCHAR *>(buffer) + length);
        auto control = controls.find({set, id});
        std::memset(words, 0xEE, length - HeaderSize(kind)); // the block is the camera's to scribble in
        return control != controls.end() ? control->second.set : STATUS_NOT_IMPLEMENTED;
    }

    // "get SET:ID KIND LENGTH", "set SET:ID KIND LENGTH VALUE/FLAGS", since the start or the last call.
    std::string TakeLog() { return std::exchange(log_, {}).str(); }

    UvcDevice &device;
    std::map<std::pair<ULONG, ULONG>, Control> controls;
    std::vector<UCHAR> found; // what the last request's block held, header left out

  private:
    static ULONG HeaderSize(ULONG kind) {
        return kind == kControlRange || kind == kControlDefectList ? 0 : sizeof(KSPROPERTY);
    }
    std::ostream &Log(const char *what, ULONG set, ULONG id, ULONG kind, ULONG length) {
        return log_ << (log_.tellp() == 0 ? "" : "; ") << what << " " << set << ":" << id << " " << kind << " "
                    << length;
    }

    UvcCamera *original_;
    std::ostringstream log_;
};

// A block of the extended layout as a client sends it.
inline ControlExtendedBlock Extended(LONG value, ULONG flags) {
    ControlExtendedBlock block{};
    block.value = value;
    block.flags = flags;
    return block;
}

inline ControlValueBlock Standard(LONG value, ULONG flags) {
    ControlValueBlock block{};
    block.value = value;
    block.flags = flags;
    return block;
}

} // namespace uvc::driver_test
