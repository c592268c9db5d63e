// The Apple channel: the Apple companion service reports each file it wrote to an Apple device by writing
// one text message into \\.\pipe\dorWEXApplePipe; a valid write report raises the write event of the
// device it names.
#pragma once

#include "companion_channels.h"
#include "named_pipe_base.h"

inline constexpr wchar_t kDorWEXApplePipeName[] = L"\\\\.\\pipe\\dorWEXApplePipe";

class CDorWEXWMIAppleNamedPipe : public CDorWEXWMIWPDNamedPipeBase {
public:
    using CDorWEXWMIWPDNamedPipeBase::CDorWEXWMIWPDNamedPipeBase;
    int ProcessData(PipeInstance instance_in) override { return ProcessData1(instance_in); }
    // Parses one message and raises the write event it reports; always 0.
    int ProcessData1(const PipeInstance& instance_in);
};

class CDorWEXWMIAppleEventsListener final : public IDorWEXCompanionChannel {
public:
    explicit CDorWEXWMIAppleEventsListener(IDorWEXDeviceRegistry* pDevices_in) : m_pDevices(pDevices_in) {}
    HRESULT ListenForAppleEvents(HANDLE handleStopEvent_in);
    HRESULT Listen(HANDLE handleStopEvent_in) override { return ListenForAppleEvents(handleStopEvent_in); }

private:
    IDorWEXDeviceRegistry* m_pDevices;
};
