// The properties that every filter has: its categories, and what its pins offer.
#include "host/streaming/filter.h"
#include "host/streaming/pin.h"
#include "host/streaming/property.h"

namespace host::streaming {

namespace {

constexpr const char *kRoutine = "filter property";
constexpr KSIDENTIFIER kStandardInterface{.Set = kInterfaceSetStandard, .Id = KSINTERFACE_STANDARD_STREAMING};
constexpr KSIDENTIFIER kStandardMedium{.Set = kMediumSetStandard, .Id = KSMEDIUM_STANDARD_DEVIO};

// Names that the class driver's setup file registers for pin categories.
constexpr struct {
    GUID name;
    WCHAR text[8];
} kPinNames[] = {{.name = kPinNameVideoCapture, .text = L"Capture"}};

Filter &FilterOf(PIRP irp) {
    return *static_cast<Filter *>(Object::FromIrp(irp));
}

template <class Value> NTSTATUS AnswerValue(PIRP irp, PVOID data, const Value &value) {
    return AnswerBytes(irp, data, &value, sizeof(value));
}

// The pin of a KSP_PIN; null when there is no such pin. The tables have checked that the property is long enough.
const KSPIN_DESCRIPTOR_EX *PinOf(PIRP irp, PKSIDENTIFIER property) {
    const KSFILTER_DESCRIPTOR &descriptor = *FilterOf(irp).Descriptor;
    ULONG id = reinterpret_cast<const KSP_PIN *>(property)->PinId;
    return id < descriptor.PinDescriptorsCount ? PinDescriptor(descriptor, id) : nullptr;
}

NTSTATUS GetPinTypes(PIRP irp, PKSIDENTIFIER, PVOID data) {
    return AnswerValue(irp, data, FilterOf(irp).Descriptor->PinDescriptorsCount);
}

NTSTATUS IntersectRange(Filter &filter, PIRP irp, KSP_PIN &request, const KSPIN_DESCRIPTOR_EX &pin, KSDATARANGE &wanted,
                        PVOID data) {
    return ForMatchingRanges(pin, wanted, [&](PKSDATARANGE offered) {
        ULONG size = 0;
        NTSTATUS status = CallDriver(CallbackKind::Pin, "pin intersect", irp, pin.IntersectHandler,
                                     static_cast<PVOID>(static_cast<PKSFILTER>(&filter)), irp, &request, &wanted,
                                     offered, OutputLength(irp), data, &size);
        if (status == STATUS_SUCCESS && size > OutputLength(irp))
            Violation("KsCallbackReturn", "pin intersect", "a format beyond the room for it");
        irp->IoStatus.Information = status == STATUS_NO_MATCH ? 0 : size;
        return status;
    });
}

// The property is a KSP_PIN, a KSMULTIPLE_ITEM and the caller's ranges, each at a multiple of 8. The first range that
// the pin can meet decides.
NTSTATUS GetIntersection(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    auto &request = *reinterpret_cast<KSP_PIN *>(property);
    const KSPIN_DESCRIPTOR_EX *pin = PinOf(irp, property);
    if (pin == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (pin->IntersectHandler == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ULONG room = InputLength(irp) - sizeof(KSP_PIN);
    auto *list = reinterpret_cast<KSMULTIPLE_ITEM *>(&request + 1);
    if (list->Size < sizeof(*list) || list->Size > room)
        return STATUS_INVALID_BUFFER_SIZE;

    Filter &filter = FilterOf(irp);
    auto *position = reinterpret_cast<UCHAR *>(list + 1);
    ULONG left = list->Size - sizeof(*list);
    for (ULONG i = 0; i < list->Count; ++i) {
        auto &wanted = *reinterpret_cast<KSDATARANGE *>(position);
        if (left < sizeof(KSDATARANGE) || wanted.FormatSize < sizeof(KSDATARANGE) || wanted.FormatSize > left)
            return STATUS_INVALID_BUFFER_SIZE;
        NTSTATUS status = IntersectRange(filter, irp, request, *pin, wanted, data);
        if (status != STATUS_NO_MATCH)
            return status;
        ULONG step = (wanted.FormatSize + 7) & ~7u;
        if (step > left)
            break; // the last range needs no padding
        position += step;
        left -= step;
    }
    return STATUS_NO_MATCH;
}

// The properties that take a KSP_PIN and answer from its descriptor.
NTSTATUS GetPinValue(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    const KSPIN_DESCRIPTOR_EX *pin = PinOf(irp, property);
    if (pin == nullptr)
        return STATUS_INVALID_PARAMETER;
    const KSPIN_DESCRIPTOR &descriptor = pin->PinDescriptor;
    switch (property->Id) {
    case KSPROPERTY_PIN_CINSTANCES:
    case KSPROPERTY_PIN_GLOBALCINSTANCES: {
        Filter &filter = FilterOf(irp);
        MutexHold hold(filter.control, kRoutine);
        ULONG id = reinterpret_cast<const KSP_PIN *>(property)->PinId;
        return AnswerValue(
            irp, data,
            KSPIN_CINSTANCES{.PossibleCount = pin->InstancesPossible, .CurrentCount = filter.PinInstances(id)});
    }
    case KSPROPERTY_PIN_NECESSARYINSTANCES:
        return AnswerValue(irp, data, pin->InstancesNecessary);
    case KSPROPERTY_PIN_DATAFLOW:
        return AnswerValue(irp, data, descriptor.DataFlow);
    case KSPROPERTY_PIN_COMMUNICATION:
        return AnswerValue(irp, data, descriptor.Communication);
    case KSPROPERTY_PIN_CATEGORY:
        return descriptor.Category == nullptr ? STATUS_NOT_FOUND : AnswerValue(irp, data, *descriptor.Category);
    default:
        return STATUS_NOT_FOUND;
    }
}

NTSTATUS GetPinList(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    const KSPIN_DESCRIPTOR_EX *pin = PinOf(irp, property);
    if (pin == nullptr)
        return STATUS_INVALID_PARAMETER;
    const KSPIN_DESCRIPTOR &descriptor = pin->PinDescriptor;
    switch (property->Id) {
    case KSPROPERTY_PIN_CONSTRAINEDDATARANGES:
        if (descriptor.ConstrainedDataRangesCount != 0)
            return AnswerRanges(irp, data, descriptor.ConstrainedDataRanges, descriptor.ConstrainedDataRangesCount);
        [[fallthrough]]; // nothing constrains them
    case KSPROPERTY_PIN_DATARANGES:
        return AnswerRanges(irp, data, descriptor.DataRanges, descriptor.DataRangesCount);
    case KSPROPERTY_PIN_INTERFACES:
        if (descriptor.InterfacesCount == 0)
            return AnswerList(irp, data, &kStandardInterface, 1, sizeof(kStandardInterface));
        return AnswerList(irp, data, descriptor.Interfaces, descriptor.InterfacesCount, sizeof(KSPIN_INTERFACE));
    case KSPROPERTY_PIN_MEDIUMS:
        if (descriptor.MediumsCount == 0)
            return AnswerList(irp, data, &kStandardMedium, 1, sizeof(kStandardMedium));
        return AnswerList(irp, data, descriptor.Mediums, descriptor.MediumsCount, sizeof(KSPIN_MEDIUM));
    default:
        return STATUS_NOT_FOUND;
    }
}

// A zero-terminated text. A pin without a name of its own goes by its category's.
NTSTATUS GetPinName(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    const KSPIN_DESCRIPTOR_EX *pin = PinOf(irp, property);
    if (pin == nullptr)
        return STATUS_INVALID_PARAMETER;
    const GUID *name = pin->PinDescriptor.Name != nullptr ? pin->PinDescriptor.Name : pin->PinDescriptor.Category;
    for (const auto &known : kPinNames) {
        if (name != nullptr && SameGuid(*name, known.name))
            return AnswerBytes(irp, data, known.text, sizeof(known.text));
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS GetTopology(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    const KSFILTER_DESCRIPTOR &descriptor = *FilterOf(irp).Descriptor;
    if (property->Id == KSPROPERTY_TOPOLOGY_CATEGORIES)
        return AnswerList(irp, data, descriptor.Categories, descriptor.CategoriesCount, sizeof(GUID));
    return AnswerList(irp, data, nullptr, 0, 0); // no nodes, no connections
}

const KSPROPERTY_ITEM kPinItems[] = {
    DEFINE_KSPROPERTY_ITEM_PIN_CINSTANCES(GetPinValue),
    DEFINE_KSPROPERTY_ITEM_PIN_CTYPES(GetPinTypes),
    DEFINE_KSPROPERTY_ITEM_PIN_DATAFLOW(GetPinValue),
    DEFINE_KSPROPERTY_ITEM_PIN_DATARANGES(GetPinList),
    DEFINE_KSPROPERTY_ITEM_PIN_DATAINTERSECTION(GetIntersection),
    DEFINE_KSPROPERTY_ITEM_PIN_INTERFACES(GetPinList),
    DEFINE_KSPROPERTY_ITEM_PIN_MEDIUMS(GetPinList),
    DEFINE_KSPROPERTY_ITEM_PIN_COMMUNICATION(GetPinValue),
    DEFINE_KSPROPERTY_ITEM_PIN_GLOBALCINSTANCES(GetPinValue),
    DEFINE_KSPROPERTY_ITEM_PIN_NECESSARYINSTANCES(GetPinValue),
    DEFINE_KSPROPERTY_ITEM_PIN_CATEGORY(GetPinValue),
    DEFINE_KSPROPERTY_ITEM_PIN_NAME(GetPinName),
    DEFINE_KSPROPERTY_ITEM_PIN_CONSTRAINEDDATARANGES(GetPinList),
};

const KSPROPERTY_ITEM kTopologyItems[] = {
    DEFINE_KSPROPERTY_ITEM_TOPOLOGY_CATEGORIES(GetTopology),
    DEFINE_KSPROPERTY_ITEM_TOPOLOGY_NODES(GetTopology),
    DEFINE_KSPROPERTY_ITEM_TOPOLOGY_CONNECTIONS(GetTopology),
};

const KSPROPERTY_SET kFilterSets[] = {
    DEFINE_KSPROPERTY_SET(&kPropSetPin, SIZEOF_ARRAY(kPinItems), kPinItems, 0, nullptr),
    DEFINE_KSPROPERTY_SET(&kPropSetTopology, SIZEOF_ARRAY(kTopologyItems), kTopologyItems, 0, nullptr),
};

} // namespace

NTSTATUS FilterProperty(Filter &filter, PIRP irp) {
    const PropertyTable tables[] = {DriverTable(filter.Descriptor->AutomationTable, CallbackKind::Filter),
                                    OwnTable(kFilterSets)};
    return AnswerProperty(irp, tables);
}

} // namespace host::streaming
