#include "host/usb/configuration.h"

#include "platform/byte_cursor.h"

#include <algorithm>
#include <cstddef>
#include <optional>

namespace host::usb {
namespace {

std::unique_ptr<Pipe> PipeOfEndpoint(ByteCursor endpoint, UCHAR interfaceNumber, ULONG maximumTransferSize) {
    auto pipe = std::make_unique<Pipe>();
    pipe->interfaceNumber = interfaceNumber;
    pipe->endpoint = endpoint.U8();
    pipe->type = static_cast<USBD_PIPE_TYPE>(endpoint.U8() & USB_ENDPOINT_TYPE_MASK);
    // Bits 11 and 12 count the further transactions of a high-bandwidth endpoint (USB 2.0, table 9-13).
    std::uint16_t packet = endpoint.U16();
    pipe->maximumPacketSize = static_cast<USHORT>((packet & 0x7FF) * ((packet >> 11 & 3) + 1));
    pipe->interval = endpoint.U8();
    pipe->maximumTransferSize = maximumTransferSize;
    return pipe;
}

// The endpoints behind an interface descriptor, up to the next interface. Nothing when fewer come than it announced.
std::optional<PipeList> PipesOfInterface(ByteCursor rest, const USB_INTERFACE_DESCRIPTOR &setting,
                                         ULONG maximumTransferSize) {
    PipeList pipes;
    while (pipes.size() < setting.bNumEndpoints) {
        std::uint8_t length = rest.U8();
        std::uint8_t type = rest.U8();
        if (!rest.Ok() || length < sizeof(USB_COMMON_DESCRIPTOR) || type == USB_INTERFACE_DESCRIPTOR_TYPE)
            return std::nullopt;
        ByteCursor body = rest.Carve(length - sizeof(USB_COMMON_DESCRIPTOR));
        if (type != USB_ENDPOINT_DESCRIPTOR_TYPE)
            continue;
        auto pipe = PipeOfEndpoint(body, setting.bInterfaceNumber, maximumTransferSize);
        if (length < sizeof(USB_ENDPOINT_DESCRIPTOR) || !body.Ok())
            return std::nullopt;
        pipes.push_back(std::move(pipe));
    }
    return pipes;
}

} // namespace

Pipe *Configuration::FindPipe(USBD_PIPE_HANDLE pipe) const {
    auto found = std::ranges::find_if(pipes, [pipe](const auto &open) { return open->handle == pipe; });
    return found == pipes.end() ? nullptr : found->get();
}

USBD_STATUS OpenInterface(const std::vector<std::uint8_t> &descriptor, USBD_INTERFACE_INFORMATION &information,
                          std::size_t room, ULONG maximumTransferSize, HandleSource &handles, PipeList &pipes) {
    constexpr std::size_t kWithoutPipes = offsetof(USBD_INTERFACE_INFORMATION, Pipes);
    if (room < kWithoutPipes || information.Length < kWithoutPipes || information.Length > room)
        return USBD_STATUS_BUFFER_TOO_SMALL;

    auto *configuration =
        reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(const_cast<std::uint8_t *>(descriptor.data()));
    const USB_INTERFACE_DESCRIPTOR *setting = USBD_ParseConfigurationDescriptorEx(
        configuration, configuration, information.InterfaceNumber, information.AlternateSetting, -1, -1, -1);
    if (setting == nullptr)
        return USBD_STATUS_INTERFACE_NOT_FOUND;

    auto behind = reinterpret_cast<const std::uint8_t *>(setting) + setting->bLength - descriptor.data();
    auto opened = PipesOfInterface(ByteCursor(std::span(descriptor).subspan(static_cast<std::size_t>(behind))),
                                   *setting, maximumTransferSize);
    if (!opened)
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    if (information.Length < kWithoutPipes + opened->size() * sizeof(USBD_PIPE_INFORMATION))
        return USBD_STATUS_BUFFER_TOO_SMALL;

    information.Class = setting->bInterfaceClass;
    information.SubClass = setting->bInterfaceSubClass;
    information.Protocol = setting->bInterfaceProtocol;
    information.InterfaceHandle = handles.Next();
    information.NumberOfPipes = static_cast<ULONG>(opened->size());
    PUSBD_PIPE_INFORMATION out = information.Pipes;
    for (auto &pipe : *opened) {
        pipe->handle = handles.Next();
        out->MaximumPacketSize = pipe->maximumPacketSize;
        out->EndpointAddress = pipe->endpoint;
        out->Interval = pipe->interval;
        out->PipeType = pipe->type;
        out->PipeHandle = pipe->handle;
        out->MaximumTransferSize = pipe->maximumTransferSize;
        ++out;
        pipes.push_back(std::move(pipe));
    }
    return USBD_STATUS_SUCCESS;
}

} // namespace host::usb
