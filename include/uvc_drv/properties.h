/*
 * uvc_drv: the private property sets of its capture filter, for applications and for the driver itself.
 *
 * C99 and C++17. Include the platform's headers first: <ks.h> and <ksmedia.h> with what they need (an application:
 * <windows.h>). Nothing else is included here. docs/application-interface.md tells what each property does.
 *
 * All properties belong to the filter. Integers are little-endian. Where a block begins with a KSPROPERTY, the same
 * block serves as input and as output of IOCTL_KS_PROPERTY: the class driver wants as many bytes of property as the
 * block has. Blocks without one say so; their property goes in a buffer of its own that is as long as the block.
 */
#ifndef UVC_DRV_PROPERTIES_H
#define UVC_DRV_PROPERTIES_H

#ifdef __cplusplus
#define UVC_DRV_GUID inline constexpr GUID
#define UVC_DRV_ASSERT_SIZE(type, size) static_assert(sizeof(type) == (size), "layout of " #type)
#else
#define UVC_DRV_GUID static const GUID
#define UVC_DRV_ASSERT_SIZE(type, size) typedef char type##_HAS_ITS_SIZE[sizeof(type) == (size) ? 1 : -1]
#endif

/* {96427893-8DB4-42C5-BDAC-1E0110672A4D}, who made the camera, and which one it is: get */
UVC_DRV_GUID PROPSETID_DEVICE_INFO = {0x96427893, 0x8DB4, 0x42C5, {0xBD, 0xAC, 0x1E, 0x01, 0x10, 0x67, 0x2A, 0x4D}};
/* {C3B485C2-8160-4AA6-BBFE-5DBBEDF42504}, the driver's version and the camera's description: get */
UVC_DRV_GUID PROPSETID_DRIVER_INFO = {0xC3B485C2, 0x8160, 0x4AA6, {0xBB, 0xFE, 0x5D, 0xBB, 0xED, 0xF4, 0x25, 0x04}};
/* {70057F54-0649-425E-BF47-CC862103B33E}, camera controls that the standard sets do not have: get and set */
UVC_DRV_GUID PROPSETID_PRIVATE_IMAGE = {0x70057F54, 0x0649, 0x425E, {0xBF, 0x47, 0xCC, 0x86, 0x21, 0x03, 0xB3, 0x3E}};
/* {6E0C59B1-3C83-4A78-9838-10D5C883E3CB}, parameters of the driver and requests to it: get and set */
UVC_DRV_GUID PROPSETID_DRIVER_PARAMETER = {
    0x6E0C59B1, 0x3C83, 0x4A78, {0x98, 0x38, 0x10, 0xD5, 0xC8, 0x83, 0xE3, 0xCB}};
/* {06C9E87A-275F-4BBD-BD76-74DDF8A49403}, the colour matrix and the lists of defective pixels: get and set */
UVC_DRV_GUID PROPSETID_PRIVATE_COLORMATRIX = {
    0x06C9E87A, 0x275F, 0x4BBD, {0xBD, 0x76, 0x74, 0xDD, 0xF8, 0xA4, 0x94, 0x03}};

/* PROPSETID_DEVICE_INFO. Texts are ANSI and end with a zero. */

enum {
    UVC_DEVICE_INFO_VENDOR = 100,   /* UVC_DEVICE_TEXT_S: USB vendor id, manufacturer */
    UVC_DEVICE_INFO_SERIAL = 101,   /* UVC_DEVICE_SERIAL_S */
    UVC_DEVICE_INFO_MODEL = 102,    /* UVC_DEVICE_MODEL_S */
    UVC_DEVICE_INFO_INTERFACE = 103 /* UVC_DEVICE_TEXT_S: UVC_INTERFACE_NUMBER, no text */
};

#define UVC_INTERFACE_NUMBER 66 /* of this set of properties */
#define UVC_MODEL_CONSTANT_0 5  /* what applications have always been told */
#define UVC_MODEL_CONSTANT_1 7

typedef struct {
    KSPROPERTY Property;
    ULONG Number;
    char Text[256];
} UVC_DEVICE_TEXT_S;
UVC_DRV_ASSERT_SIZE(UVC_DEVICE_TEXT_S, 288);

typedef struct {
    KSPROPERTY Property;
    ULONGLONG Serial; /* the text of the serial number read as hexadecimal; 0 where it is none */
    char Product[256];
} UVC_DEVICE_SERIAL_S;
UVC_DRV_ASSERT_SIZE(UVC_DEVICE_SERIAL_S, 288);

typedef struct {
    KSPROPERTY Property;
    ULONG Constants[2];
    ULONG ProductId; /* USB */
    char DriverVersion[256];
} UVC_DEVICE_MODEL_S;
UVC_DRV_ASSERT_SIZE(UVC_DEVICE_MODEL_S, 296);

/* PROPSETID_DRIVER_INFO. The blocks have no KSPROPERTY in front. */

enum {
    UVC_DRIVER_INFO_VERSION = 0, /* UVC_DRIVER_VERSION_S */
    UVC_DRIVER_INFO_CAMERA = 1   /* UVC_CAMERA_INFO_S */
};

#define UVC_DRIVER_VERSION_KIND 4

typedef struct {
    ULONG Kind; /* UVC_DRIVER_VERSION_KIND */
    ULONG Reserved;
    USHORT Version[4];    /* fourth, third, second and first number */
    USHORT BuildKind[64]; /* UTF-16, ends with a zero */
} UVC_DRIVER_VERSION_S;
UVC_DRV_ASSERT_SIZE(UVC_DRIVER_VERSION_S, 144);

enum {
    UVC_CAMERA_GENERIC = 0, /* InformationKind */
    UVC_CAMERA_FAMILY = 6,
    UVC_SENSOR_OTHER = 1, /* SensorCode: what the camera offers */
    UVC_SENSOR_BY8 = 2,
    UVC_SENSOR_YUY2 = 4
};

typedef struct {
    char Product[128];
    char Manufacturer[128];
    char SerialText[128];
    ULONG InformationKind;
    ULONG VendorId;
    ULONG ProductId;
    ULONG SensorCode; /* 0 for a generic camera */
    ULONGLONG Serial;
    ULONG VersionLow;
    ULONG FirmwareRevision; /* 0: not told */
    ULONG Reserved[2];
} UVC_CAMERA_INFO_S;
UVC_DRV_ASSERT_SIZE(UVC_CAMERA_INFO_S, 424);

/* PROPSETID_PRIVATE_IMAGE. UVC_CONTROL_S unless another block is named. */

enum {
    UVC_IMAGE_WHITE_BALANCE_BLUE = 101, /* gain of blue, 64 is 1.0 */
    UVC_IMAGE_WHITE_BALANCE_RED = 102,
    UVC_IMAGE_EXPOSURE_REFERENCE = 106,     /* brightness that the exposure automatic wants, 0 to 255 */
    UVC_IMAGE_WHITE_BALANCE_ONE_PUSH = 107, /* set to 1: balance once */
    UVC_IMAGE_EXPOSURE = 109,               /* 100 us; flags switch the automatic */
    UVC_IMAGE_EXTERNAL_TRIGGER = 115,       /* UVC_TRIGGER_OFF */
    UVC_IMAGE_OFFSET_X = 118,               /* of the region of interest, pixels of the full sensor */
    UVC_IMAGE_OFFSET_Y = 119,
    UVC_IMAGE_REGISTER = 122,               /* UVC_REGISTER_S or, with families A and B, UVC_REGISTER_VALUE_S */
    UVC_IMAGE_AUTOFOCUS = 124,              /* set to 1: search the focus once */
    UVC_IMAGE_REGISTER_PAIR = 125,          /* UVC_REGISTER_PAIR_S */
    UVC_IMAGE_EXPOSURE_LIMIT = 201,         /* of the exposure automatic, 100 us */
    UVC_IMAGE_EXPOSURE_LIMIT_FOLLOWS = 202, /* 1: the limit is that of the camera */
    UVC_IMAGE_GENERAL_VALUE_1 = 203,
    UVC_IMAGE_GENERAL_VALUE_2 = 204,
    UVC_IMAGE_GENERAL_VALUE_3 = 205,
    UVC_IMAGE_WHITE_BALANCE_GREEN = 206,
    UVC_IMAGE_SMOOTHING = 210,        /* of green in the demosaic */
    UVC_IMAGE_BINNING = 211,          /* 1, 2 or 4 */
    UVC_IMAGE_GAINS_ENABLE = 212,     /* whether the gains of the white balance are applied */
    UVC_IMAGE_SOFTWARE_TRIGGER = 213, /* UVC_TRIGGER_ONCE */
    UVC_IMAGE_REGISTER_1 = 214,
    UVC_IMAGE_REGISTER_2 = 215,
    UVC_IMAGE_REGISTER_3 = 216,
    UVC_IMAGE_REGISTER_4 = 226,
    UVC_IMAGE_REGISTER_5 = 227,
    UVC_IMAGE_REGISTER_6 = 228,
    UVC_IMAGE_REGISTER_7 = 229
};

/* PROPSETID_PRIVATE_COLORMATRIX. UVC_CONTROL_S unless another block is named. Coefficients: 64 is 1.0. */

enum {
    UVC_COLORMATRIX_ENABLE = 0,
    UVC_COLORMATRIX_R_R = 1, /* red from red */
    UVC_COLORMATRIX_R_G = 2,
    UVC_COLORMATRIX_R_B = 3,
    UVC_COLORMATRIX_G_R = 4,
    UVC_COLORMATRIX_G_G = 5,
    UVC_COLORMATRIX_G_B = 6,
    UVC_COLORMATRIX_B_R = 7,
    UVC_COLORMATRIX_B_G = 8,
    UVC_COLORMATRIX_B_B = 9,
    UVC_COLORMATRIX_CONVERSION_ALGORITHM = 10,
    UVC_COLORMATRIX_RESET = 11,         /* set to anything but 0: the defaults again */
    UVC_COLORMATRIX_BAYER_PATTERN = 12, /* 0 B-G, 1 G-B, 2 G-R, 3 R-G */
    UVC_COLORMATRIX_DEFECT_CORRECTION = 32,
    UVC_COLORMATRIX_DEFECTS = 33, /* UVC_DEFECT_LIST_S, of the sensor at binning 1 */
    UVC_COLORMATRIX_DEFECTS_BINNED_2 = 34,
    UVC_COLORMATRIX_DEFECTS_BINNED_4 = 35
};

/* Flags and capabilities, as in the video property sets. */
enum {
    UVC_CONTROL_AUTOMATIC = 1,
    UVC_CONTROL_MANUAL = 2,
    UVC_TRIGGER_OFF = 4, /* of UVC_IMAGE_EXTERNAL_TRIGGER while it is off */
    UVC_TRIGGER_ONCE = 8 /* of UVC_IMAGE_SOFTWARE_TRIGGER to make it fire */
};

typedef struct {
    KSPROPERTY Property;
    LONG Value;
    ULONG Flags;
    ULONG Capabilities; /* what follows is told by a get and ignored by a set */
    LONG Minimum;
    LONG Maximum;
    LONG Default;
} UVC_CONTROL_S;
UVC_DRV_ASSERT_SIZE(UVC_CONTROL_S, 48);

/* Families A and B: register 122 as a plain value. */
typedef struct {
    KSPROPERTY Property;
    LONG Value;
    ULONG Flags;
    ULONG Capabilities;
    ULONG Reserved;
} UVC_REGISTER_VALUE_S;
UVC_DRV_ASSERT_SIZE(UVC_REGISTER_VALUE_S, 40);

/* Family C: a window on its registers. A get tells the register that the set before it has chosen. */
#define UVC_REGISTER_WRITE 1 /* in Flags of a set: write Value; without it the set only chooses */
typedef struct {
    KSPROPERTY Property;
    ULONG Index; /* 0 to 15 */
    ULONG Value;
    ULONG Flags;
    ULONG Reserved;
} UVC_REGISTER_S;
UVC_DRV_ASSERT_SIZE(UVC_REGISTER_S, 40);

/* Two registers that are read and written together. A set takes the two values. */
typedef struct {
    LONG Value;
    ULONG Flags;
    ULONG Capabilities;
    LONG Minimum;
    LONG Maximum;
    LONG Default;
    LONG Step;
    ULONG Reserved;
} UVC_REGISTER_OF_PAIR;
typedef struct {
    KSPROPERTY Property;
    UVC_REGISTER_OF_PAIR Registers[2];
} UVC_REGISTER_PAIR_S;
UVC_DRV_ASSERT_SIZE(UVC_REGISTER_PAIR_S, 88);

/* Defective pixels in coordinates of the sensor at the list's binning. No KSPROPERTY in front. */
#define UVC_DEFECTS_MAXIMUM 256
typedef struct {
    ULONG Count; /* above 256 counts as 256 */
    struct {
        USHORT X;
        USHORT Y;
    } Pixels[UVC_DEFECTS_MAXIMUM];
} UVC_DEFECT_LIST_S;
UVC_DRV_ASSERT_SIZE(UVC_DEFECT_LIST_S, 1028);

/* PROPSETID_DRIVER_PARAMETER. A ULONG unless something else is named; without KSPROPERTY in front. */

enum {
    UVC_PARAMETER_STATISTICS_OVERLAY = 1,  /* 1: write a line of statistics into each frame */
    UVC_PARAMETER_DISCARD_INCOMPLETE = 2,  /* 1: frames that came short are dropped */
    UVC_PARAMETER_RESTART_LOADER = 3,      /* set; families A and B */
    UVC_PARAMETER_FIRMWARE_REVISION = 4,   /* get; families */
    UVC_PARAMETER_DEVICE_STATUS = 5,       /* get; families A and B */
    UVC_PARAMETER_PASS_THROUGH = 6,        /* UVC_PASS_THROUGH_HEADER and data: any request to the camera */
    UVC_PARAMETER_TRANSFER_COUNT = 10,     /* bulk transfers in flight, of the next stream */
    UVC_PARAMETER_USER_REGISTER = 11,      /* set; families A and B */
    UVC_PARAMETER_CONTROL_TIMEOUT = 12,    /* ms */
    UVC_PARAMETER_STREAMING_MODE = 14,     /* of the next stream; family C, colour */
    UVC_PARAMETER_CAMERA_DESCRIPTION = 15, /* get, 8 bytes as the camera sent them; family C, colour */
    UVC_PARAMETER_FAMILY_SWITCH = 16,      /* kept and told; family C */
    UVC_PARAMETER_MEASURE_FRAME_RATE = 17, /* 1: the overlay tells it */
    UVC_PARAMETER_ZERO_BUFFERS = 18,       /* 1: buffers are cleared before use */
    UVC_PARAMETER_SENSOR_COLOURS = 19,     /* get, 8 bytes: colours (0, 1), Bayer pattern; family C, colour */
    UVC_PARAMETER_WRITE_USER_DATA = 20,    /* set, not 0: store the lists of defects in the camera; family C */
    UVC_PARAMETER_LOAD_USER_DATA = 21,     /* set: read them again */
    UVC_PARAMETER_DUMP_USER_DATA = 22,     /* set: to the debug output */
    UVC_PARAMETER_CLEAR_USER_DATA = 23,    /* set */
    UVC_PARAMETER_CYCLE_PORT = 24,         /* set: as if the camera were plugged in again */
    UVC_PARAMETER_IGNORED = 25,
    UVC_PARAMETER_INSTRUCTION_SET = 26, /* UVC_INSTRUCTION_SET_... */
    UVC_PARAMETER_VENDOR_REGISTER = 27, /* register 0; family C */
    UVC_PARAMETER_RESET_PORT = 28       /* inside the driver only */
};

enum {
    UVC_INSTRUCTION_SET_DETECTED = 0, /* set only: what the processor has */
    UVC_INSTRUCTION_SET_SCALAR = 1,
    UVC_INSTRUCTION_SET_SSE = 2, /* for which there are no kernels: scalar too */
    UVC_INSTRUCTION_SET_SSE2 = 3,
    UVC_INSTRUCTION_SET_SSSE3 = 4,
    UVC_INSTRUCTION_SET_SSE41 = 5,
    UVC_INSTRUCTION_SET_SSE41_ALONE = 6, /* without the sets below it */
    UVC_INSTRUCTION_SET_LAST = 7         /* leaves out every set that there are kernels for */
};

/* In front of the data: a set sends them to the camera; a get asks with this header behind its KSPROPERTY. */
#define UVC_PASS_THROUGH_IN 0
#define UVC_PASS_THROUGH_OUT 1
typedef struct {
    UCHAR Vendor;    /* 0: a class request */
    UCHAR Recipient; /* 0 device, 1 interface, 2 endpoint, 3 other */
    UCHAR Direction; /* UVC_PASS_THROUGH_IN of a get, UVC_PASS_THROUGH_OUT of a set */
    UCHAR Request;   /* bRequest */
    USHORT Value;    /* wValue */
    USHORT Index;    /* wIndex */
    USHORT Length;   /* wLength */
} UVC_PASS_THROUGH_HEADER;
UVC_DRV_ASSERT_SIZE(UVC_PASS_THROUGH_HEADER, 10);

#endif
