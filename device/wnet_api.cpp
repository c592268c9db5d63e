#include "wnet_api.h"

#include <atomic>

namespace {

const DorWEXWNetApi kSystemWNetApi = {WNetAddConnection2W, WNetCancelConnection2W, WNetGetLastErrorW};
std::atomic<const DorWEXWNetApi*> g_pWNetApi{&kSystemWNetApi};

}  // namespace

const DorWEXWNetApi& WNetApi() { return *g_pWNetApi.load(); }

const DorWEXWNetApi* SetWNetApi(const DorWEXWNetApi* pApi_in) {
    return g_pWNetApi.exchange(pApi_in != nullptr ? pApi_in : &kSystemWNetApi);
}
