// The Apple channel: the Apple companion service reports each file it wrote to an Apple device by writing
// one text message into \\.\pipe\dorWEXApplePipe; a valid write report raises the write event of the
// device it names.
#pragma once

#include "named_pipe_base.h"

class CDorWEXWMIThreadAppleEventsProcessor;

inline constexpr wchar_t kDorWEXApplePipeName[] = L"\\\\.\\pipe\\dorWEXApplePipe";

class CDorWEXWMIAppleNamedPipe : public CDorWEXWMIWPDNamedPipeBase {
public:
    using CDorWEXWMIWPDNamedPipeBase::CDorWEXWMIWPDNamedPipeBase;
    int ProcessData(PipeInstance instance_in) override { return ProcessData1(instance_in); }
    // Parses one message and raises the write event it reports; always 0.
    int ProcessData1(const PipeInstance& instance_in);
};

class CDorWEXWMIAppleEventsListener {
public:
    explicit CDorWEXWMIAppleEventsListener(CDorWEXWMIWPDCore* pCore_in) : m_pCore(pCore_in) {}
    // Serves the pipe until the processor's stop event; E_FAIL when the pipe cannot be set up.
    HRESULT ListenForAppleEvents(CDorWEXWMIThreadAppleEventsProcessor* pProcessor_in);

private:
    CDorWEXWMIWPDCore* m_pCore;
    CDorWEXWMIThreadAppleEventsProcessor* m_pProcessor = nullptr;
};
