// The network-connection calls the BlackBerry share access makes, through one table of function pointers
// that defaults to the system's functions; tests answer them with result codes of their own.
#pragma once

#include <windows.h>
#include <winnetwk.h>

struct DorWEXWNetApi {
    decltype(&WNetAddConnection2W) pWNetAddConnection2W;
    decltype(&WNetCancelConnection2W) pWNetCancelConnection2W;
    decltype(&WNetGetLastErrorW) pWNetGetLastErrorW;
};

const DorWEXWNetApi& WNetApi();
// Replaces the table (the caller keeps it alive) and returns the previous one; null restores the system's.
const DorWEXWNetApi* SetWNetApi(const DorWEXWNetApi* pApi_in);
