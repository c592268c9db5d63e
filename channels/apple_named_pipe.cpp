#include "apple_named_pipe.h"

#include <memory>
#include <string>

#include "../common/trace.h"
#include "apple_message.h"

int CDorWEXWMIAppleNamedPipe::ProcessData1(const PipeInstance& instance_in) {
    Trace(L"CDorWEXWMIAppleNamedPipe::ProcessData1.\n");
    // The message is UTF-16 text in the request buffer; one that fills the buffer has no terminator.
    const auto* l_pwcharMessage = reinterpret_cast<const wchar_t*>(instance_in.request);
    const std::wstring_view l_Message(l_pwcharMessage,
                                      wcsnlen(l_pwcharMessage, sizeof(instance_in.request) / sizeof(wchar_t)));
    dorwex::AppleWriteReport l_Report;
    switch (dorwex::ParseAppleWriteReport(l_Message, l_Report)) {
    case dorwex::AppleReportStatus::kInvalidPacket:
        Trace(L"CDorWEXWMIAppleNamedPipe::ProcessData1, ERROR: invalid packet.\n");
        return 0;
    case dorwex::AppleReportStatus::kNotWrite:
        Trace(L"CDorWEXWMIAppleNamedPipe::ProcessData1, ERROR: %s != %s.\n",
              l_Report.values[dorwex::AppleWriteReport::EVENT].c_str(), L"WRITE");
        return 0;
    case dorwex::AppleReportStatus::kValid:
        break;
    }
    using Field = dorwex::AppleWriteReport;
    ProcessIdFromText(l_Report.values[Field::STR_PID]);  // read, as the protocol has it, and not used
    const DWORD l_dwordClientPid = static_cast<DWORD>(ProcessIdFromText(l_Report.values[Field::CLIENT_PID]));
    const auto l_Text = [&](Field::Field field_in) -> const wchar_t* {
        return l_Report.values[field_in].empty() ? nullptr : l_Report.values[field_in].c_str();
    };
    SimulateWPDWriteEvent(l_Text(Field::SERIAL_NUMBER), l_Text(Field::TARGET_PATH), l_Text(Field::LOCAL_FILE_NAME),
                          l_dwordClientPid);
    return 0;
}

HRESULT CDorWEXWMIAppleEventsListener::ListenForAppleEvents(HANDLE handleStopEvent_in) {
    Trace(L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents entered...\n");
    HRESULT l_HRESULT = S_OK;
    {
        // About 33 KB: on the heap rather than the worker's stack.
        auto l_pPipe = std::make_unique<CDorWEXWMIAppleNamedPipe>(m_pDevices, handleStopEvent_in);
        l_HRESULT = l_pPipe->Serve(kDorWEXApplePipeName,
                                   L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents, ERROR: "
                                   L"CDorWEXWMIAppleNamedPipe.Initialize failed.\n");
    }
    Trace(L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents exiting...\n");
    return l_HRESULT;
}

std::unique_ptr<IDorWEXCompanionChannel> CreateAppleChannel(IDorWEXDeviceRegistry* pDevices_in) {
    return std::make_unique<CDorWEXWMIAppleEventsListener>(pDevices_in);
}
