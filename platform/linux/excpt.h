// Structured exceptions do not exist on Linux; the guarded call of platform/ stands for them.
#pragma once
typedef int EXCEPTION_DISPOSITION;
