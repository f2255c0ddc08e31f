/*
 * Lists the cameras that uvc_drv drives, and sets the exposure of each when one is given:
 *     example [EXPOSURE in units of 100 us]
 * Builds as C and as C++:  x86_64-w64-mingw32-gcc -I include docs/example.c -o example.exe -lsetupapi
 */
#include <windows.h>

#include <setupapi.h>

#include <ks.h>
#include <ksmedia.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "uvc_drv/properties.h"

/* KSCATEGORY_CAPTURE */
static const GUID kCapture = {0x65E8773D, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};

/* One request whose block, with its KSPROPERTY in front, serves as input and as output. */
static BOOL Ask(HANDLE filter, GUID set, ULONG id, ULONG flags, KSPROPERTY *block, DWORD size) {
    DWORD returned = 0;
    block->Set = set;
    block->Id = id;
    block->Flags = flags;
    return DeviceIoControl(filter, IOCTL_KS_PROPERTY, block, size, block, size, &returned, NULL);
}

static void Show(const char *path, const char *exposure) {
    UVC_DEVICE_SERIAL_S serial;
    UVC_CONTROL_S control;
    HANDLE filter = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
    if (filter == INVALID_HANDLE_VALUE)
        return; /* in use, or gone */
    memset(&serial, 0, sizeof(serial));
    memset(&control, 0, sizeof(control));
    if (!Ask(filter, PROPSETID_DEVICE_INFO, UVC_DEVICE_INFO_SERIAL, KSPROPERTY_TYPE_GET, &serial.Property,
             sizeof(serial))) {
        CloseHandle(filter); /* another driver's camera: left in peace */
        return;
    }
    printf("%s, serial number %llX\n", serial.Product, (unsigned long long)serial.Serial);
    if (exposure != NULL) {
        control.Value = atol(exposure);
        control.Flags = UVC_CONTROL_MANUAL;
        if (!Ask(filter, PROPSETID_PRIVATE_IMAGE, UVC_IMAGE_EXPOSURE, KSPROPERTY_TYPE_SET, &control.Property,
                 sizeof(control)))
            printf("  the exposure was refused, error %lu\n", GetLastError());
    }
    if (Ask(filter, PROPSETID_PRIVATE_IMAGE, UVC_IMAGE_EXPOSURE, KSPROPERTY_TYPE_GET, &control.Property,
            sizeof(control)))
        printf("  exposure %ld (%ld to %ld) x 100 us%s\n", control.Value, control.Minimum, control.Maximum,
               (control.Flags & UVC_CONTROL_AUTOMATIC) != 0 ? ", automatic" : "");
    CloseHandle(filter);
}

int main(int count, char **arguments) {
    /* The path is longer than its declaration says. */
    union {
        SP_DEVICE_INTERFACE_DETAIL_DATA_A detail;
        char bytes[1024];
    } found;
    SP_DEVICE_INTERFACE_DATA interfaceData;
    DWORD index = 0;
    HDEVINFO cameras = SetupDiGetClassDevsA(&kCapture, NULL, NULL, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    interfaceData.cbSize = sizeof(interfaceData);
    while (SetupDiEnumDeviceInterfaces(cameras, NULL, &kCapture, index++, &interfaceData)) {
        found.detail.cbSize = sizeof(found.detail);
        if (SetupDiGetDeviceInterfaceDetailA(cameras, &interfaceData, &found.detail, sizeof(found), NULL, NULL))
            Show(found.detail.DevicePath, count > 1 ? arguments[1] : NULL);
    }
    SetupDiDestroyDeviceInfoList(cameras);
    return 0;
}
