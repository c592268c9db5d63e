// Resource ids of the custom-action DLL, shared by its resource script and its code.
#pragma once

#define DORWEX_UNINSTALL_MOF_RESOURCE 101
