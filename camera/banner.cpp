#include "camera/banner.h"

namespace uvc {

namespace {

constexpr UNICODE_STRING kBuildTime = ConstantString(L"Tue May  3 11:48:55 2011");

} // namespace

NTSTATUS AppendVersionBanner(UNICODE_STRING *text) {
    NTSTATUS status = RtlUnicodeStringCatString(text, L"uvc_drv, ver=");
    if (NT_SUCCESS(status))
        status = RtlUnicodeStringCat(text, &kDriverVersion);
    if (NT_SUCCESS(status))
        status = RtlUnicodeStringCatString(text, L" build (fre) ");
    if (NT_SUCCESS(status))
        status = RtlUnicodeStringCat(text, &kBuildTime);
    return status;
}

} // namespace uvc
