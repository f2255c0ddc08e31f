// What the class driver and the driver must answer to a property request of the filter: tables and rules of their own,
// fed by nothing but the simulated camera's list of controls.
#pragma once

#include "host/cameras/simulated_camera.h"
#include "platform/platform.h"

#include <span>
#include <vector>

namespace uvc::driver_test {

// One item of the nine sets. `number` counts the sets from 1.
struct FilterItem {
    unsigned number;
    const GUID *set;
    ULONG id;
    ULONG minProperty;
    ULONG minData;
    bool get, set_, support; // handlers
};

std::span<const FilterItem> FilterItems();

struct PropertyAnswer {
    NTSTATUS status;
    ULONG information; // as the application sees it: 0 with an error
    bool operator==(const PropertyAnswer &) const = default;
};

class PropertyOracle {
  public:
    enum class Feature { None, Colour, Focus, Region, Registers };
    struct Row;

    explicit PropertyOracle(const host::cameras::SimulatedCamera &camera);

    // For KSPROPERTY_TYPE_GET, SET, BASICSUPPORT and SETSUPPORT. A set carries the value that a get answers.
    PropertyAnswer Answer(const FilterItem &item, ULONG flags, ULONG inputLength, ULONG outputLength) const;

    // The access word that a support request with room for just that gets.
    ULONG AccessWord(const FilterItem &item) const;

    // Whether the request gets through to a parameter that restarts the camera or takes it off the bus.
    bool Disconnects(const FilterItem &item, ULONG flags, ULONG inputLength, ULONG outputLength) const;

  private:
    const host::cameras::CameraControl *Control(ULONG kind, ULONG selector) const;
    bool Has(Feature feature) const;
    const Row *Find(ULONG set, ULONG id) const;
    bool Exists(const Row &row) const;
    bool Offers(const FilterItem &item) const;
    bool IsParameterSupported(ULONG id) const;
    NTSTATUS Access(const FilterItem &item, bool set) const;
    NTSTATUS AccessControl(const Row *row, bool set) const;
    NTSTATUS AccessParameter(ULONG id, bool set) const;
    PropertyAnswer Handle(const FilterItem &item, bool set, ULONG inputLength, ULONG outputLength) const;
    PropertyAnswer BasicSupport(const FilterItem &item, ULONG outputLength) const;

    const host::cameras::Model &model_;
    std::vector<host::cameras::CameraControl> controls_;
};

} // namespace uvc::driver_test
