// The headers only declare their GUIDs. Each one that the driver takes the address of is defined here, once.
#include "platform/platform.h"

extern "C" {
#define UVC_DEFINE_GUID(name) const GUID name = {STATICGUIDOF(name)}

UVC_DEFINE_GUID(KSCATEGORY_VIDEO);
UVC_DEFINE_GUID(KSCATEGORY_CAPTURE);
UVC_DEFINE_GUID(KSNAME_Filter);
UVC_DEFINE_GUID(PINNAME_VIDEO_CAPTURE);
UVC_DEFINE_GUID(KSDATAFORMAT_TYPE_VIDEO);
UVC_DEFINE_GUID(KSDATAFORMAT_SPECIFIER_VIDEOINFO);
UVC_DEFINE_GUID(PROPSETID_VIDCAP_DROPPEDFRAMES);

// b1a96a13-3de0-4574-9b01-c08feab318d6
extern const GUID USB_BUS_INTERFACE_USBDI_GUID = {
    0xb1a96a13, 0x3de0, 0x4574, {0x9b, 0x01, 0xc0, 0x8f, 0xea, 0xb3, 0x18, 0xd6}};
}
