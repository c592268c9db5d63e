// DllGetClassObject, the class factory and the provider object's COM shell, driven in-process so that
// the module counters and the exact trace lines can be checked.
#include <gtest/gtest.h>
#include <objbase.h>
#include <wbemcli.h>
#include <wbemprov.h>

#include <iterator>
#include <string>
#include <vector>

#include "support/provider_object.h"
#include "support/test_trace_sink.h"
#include "wmi/module.h"
#include "wmi/provider.h"
#include "wmi/provider_clsid.h"

namespace {

const std::wstring kUnloadTrace =
    L"dorWEXWPD DllMain, DllCanUnloadNow:g_longInstanceCountOfDorWEXWMIWPDClass=%1,"
    L"g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass=%2,g_longWPDEventsThreadIsRunning=0,CanUnloadNow=%3\r\n";

std::wstring UnloadTrace(int instances, int locks) {
    std::wstring text = kUnloadTrace;
    text.replace(text.find(L"%1"), 2, std::to_wstring(instances));
    text.replace(text.find(L"%2"), 2, std::to_wstring(locks));
    text.replace(text.find(L"%3"), 2, instances == 0 && locks == 0 ? L"TRUE" : L"FALSE");
    return text;
}

IClassFactory* GetFactory() {
    IClassFactory* factory = nullptr;
    EXPECT_EQ(DllGetClassObject(CLSID_DorWEXWPDWMIProvider, IID_IClassFactory, reinterpret_cast<void**>(&factory)),
              S_OK);
    return factory;
}

TEST(DllGetClassObject, AnotherClassIsEFailAndCreatesNothing) {
    TraceCapture capture(1);
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(DllGetClassObject(CLSID_WbemLocator, IID_IClassFactory, &object), E_FAIL);
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"dorWEXWPD DllMain, DllGetClassObject\r\n"});
}

TEST(DllGetClassObject, UnknownInterfaceLeavesNoFactoryAlive) {
    TraceCapture capture(1);
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(DllGetClassObject(CLSID_DorWEXWPDWMIProvider, IID_IWbemServices, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    const std::vector<std::wstring> expected = {
        L"dorWEXWPD DllMain, DllGetClassObject\r\n",
        L"CDorWEXWPDWMIClassFactory::CDorWEXWPDWMIClassFactory\r\n",
        L"CDorWEXWPDWMIClassFactory::QueryInterface, E_NOINTERFACE\r\n",
        L"CDorWEXWPDWMIClassFactory::~CDorWEXWPDWMIClassFactory\r\n",
    };
    EXPECT_EQ(capture.Lines(), expected);
}

TEST(ClassFactory, ReferenceCountStartsAtOneAndTheLastReleaseDestroys) {
    TraceCapture capture(1);
    IUnknown* unknown = nullptr;
    ASSERT_EQ(DllGetClassObject(CLSID_DorWEXWPDWMIProvider, IID_IUnknown, reinterpret_cast<void**>(&unknown)), S_OK);
    IClassFactory* factory = nullptr;
    ASSERT_EQ(unknown->QueryInterface(IID_IClassFactory, reinterpret_cast<void**>(&factory)), S_OK);
    EXPECT_EQ(static_cast<void*>(factory), static_cast<void*>(unknown));
    EXPECT_EQ(factory->Release(), 1u);
    EXPECT_EQ(unknown->Release(), 0u);
    const std::vector<std::wstring> expected = {
        L"dorWEXWPD DllMain, DllGetClassObject\r\n",
        L"CDorWEXWPDWMIClassFactory::CDorWEXWPDWMIClassFactory\r\n",
        L"CDorWEXWPDWMIClassFactory::QueryInterface, IID_IUnknown\r\n",
        L"CDorWEXWPDWMIClassFactory::AddRef, 1\r\n",
        L"CDorWEXWPDWMIClassFactory::QueryInterface, IID_IClassFactory\r\n",
        L"CDorWEXWPDWMIClassFactory::AddRef, 2\r\n",
        L"CDorWEXWPDWMIClassFactory::Release, 1\r\n",
        L"CDorWEXWPDWMIClassFactory::~CDorWEXWPDWMIClassFactory\r\n",
        L"CDorWEXWPDWMIClassFactory::Release, 0\r\n",
    };
    EXPECT_EQ(capture.Lines(), expected);
}

TEST(ClassFactory, LockServerHoldsTheModuleUntilUnlocked) {
    IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    TraceCapture capture(1);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    const std::vector<std::wstring> expected = {
        UnloadTrace(0, 0),
        L"CDorWEXWPDWMIClassFactory::LockServer\r\n",
        UnloadTrace(0, 1),
        L"CDorWEXWPDWMIClassFactory::LockServer\r\n",
        L"CDorWEXWPDWMIClassFactory::LockServer\r\n",
        UnloadTrace(0, 1),
        L"CDorWEXWPDWMIClassFactory::LockServer\r\n",
        UnloadTrace(0, 0),
    };
    EXPECT_EQ(capture.Lines(), expected);
    factory->Release();
}

TEST(ClassFactory, AFactoryAloneDoesNotHoldTheModule) {
    IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    factory->Release();
}

TEST(ClassFactory, AggregationIsRefused) {
    IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    const LONG before = g_longInstanceCountOfDorWEXWMIWPDClass;
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(factory->CreateInstance(reinterpret_cast<IUnknown*>(factory), IID_IUnknown, &object),
              CLASS_E_NOAGGREGATION);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(g_longInstanceCountOfDorWEXWMIWPDClass, before);
    factory->Release();
}

TEST(ClassFactory, ProviderObjectHoldsTheModuleForItsLifetime) {
    IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    TraceCapture capture(1);
    IUnknown* provider = nullptr;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&provider)), S_OK);
    EXPECT_EQ(g_longInstanceCountOfDorWEXWMIWPDClass, 1);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    EXPECT_EQ(provider->Release(), 0u);
    EXPECT_EQ(g_longInstanceCountOfDorWEXWMIWPDClass, 0);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    const std::vector<std::wstring> expected = {
        L"CDorWEXWPDWMIClassFactory::CreateInstance\r\n",
        L"CDorWEXWPDWMI::CDorWEXWPDWMI\r\n",
        UnloadTrace(1, 0),
        L"CDorWEXWPDWMI::Release, wmi UNLOAD is occurring\r\n",
        L"CDorWEXWPDWMI::~CDorWEXWPDWMI\r\n",
        UnloadTrace(0, 0),
    };
    EXPECT_EQ(capture.Lines(), expected);
    factory->Release();
}

TEST(ClassFactory, FailedCreationKeepsTheInstanceCountRaised) {
    IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    TraceCapture capture(1);
    const LONG before = g_longInstanceCountOfDorWEXWMIWPDClass;
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IDispatch, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    // The object's memory went back without its destructor: no destructor trace, count still raised.
    EXPECT_EQ(g_longInstanceCountOfDorWEXWMIWPDClass, before + 1);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    const std::vector<std::wstring> expected = {
        L"CDorWEXWPDWMIClassFactory::CreateInstance\r\n",
        L"CDorWEXWPDWMI::CDorWEXWPDWMI\r\n",
        UnloadTrace(before + 1, 0),
    };
    EXPECT_EQ(capture.Lines(), expected);
    InterlockedDecrement(&g_longInstanceCountOfDorWEXWMIWPDClass);  // undo for the tests that follow
    factory->Release();
}

TEST(ProviderObject, QueryInterfaceAndAddRefTraceOnlyAboveLevelOne) {
    IClassFactory* factory = GetFactory();
    ASSERT_NE(factory, nullptr);
    IUnknown* provider = nullptr;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&provider)), S_OK);
    {
        TraceCapture quiet(1);
        provider->AddRef();
        provider->Release();
        void* other = nullptr;
        EXPECT_EQ(provider->QueryInterface(IID_IDispatch, &other), E_NOINTERFACE);
        EXPECT_TRUE(quiet.Lines().empty());
    }
    {
        TraceCapture verbose(2);
        IUnknown* again = nullptr;
        ASSERT_EQ(provider->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&again)), S_OK);
        EXPECT_EQ(again, provider);
        void* other = reinterpret_cast<void*>(0x1234);
        EXPECT_EQ(provider->QueryInterface(IID_IDispatch, &other), E_NOINTERFACE);
        EXPECT_EQ(other, nullptr);
        const std::vector<std::wstring> expected = {
            L"CDorWEXWPDWMI::AddRef, 2\r\n",
            L"CDorWEXWPDWMI::QueryInterface, IID_IUnknown\r\n",
            L"CDorWEXWPDWMI::QueryInterface, E_NOINTERFACE\r\n",
        };
        EXPECT_EQ(verbose.Lines(), expected);
        again->Release();
    }
    EXPECT_EQ(provider->Release(), 0u);
    factory->Release();
}

}  // namespace

namespace {

template <class I>
I* As(IUnknown* object) {
    I* result = nullptr;
    object->QueryInterface(__uuidof(I), reinterpret_cast<void**>(&result));
    return result;
}

TEST(ProviderObject, EventQueriesAndEventsWithoutConsumers) {
    IWbemEventProviderQuerySink* queries = CreateProviderObject<IWbemEventProviderQuerySink>();
    ASSERT_NE(queries, nullptr);
    {
        TraceCapture trace(1);
        // The same id twice keeps one entry, with the newer text.
        queries->NewQuery(7, const_cast<LPWSTR>(L"WQL"), const_cast<LPWSTR>(L"select * from Win32ext_WPDEvent"));
        queries->NewQuery(7, const_cast<LPWSTR>(L"WQL"),
                          const_cast<LPWSTR>(L"select * from Win32ext_WPDEvent where strEventId = 'x'"));
        EXPECT_EQ(queries->CancelQuery(7), S_OK);
        EXPECT_EQ(queries->CancelQuery(7), S_OK) << "an unknown id is no error";
        EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDWMI::CancelQuery"),
                  std::vector<std::wstring>{
                      L"CDorWEXWPDWMI::CancelQuery 7 select * from Win32ext_WPDEvent where strEventId = 'x'"});
        EXPECT_TRUE(trace.Has(L"CDorWEXWPDWMI::NewQuery select * from Win32ext_WPDEvent\n"));

        // Without a consumer and without WMI's services an event is dropped, and that is no error.
        IWbemServices* services = As<IWbemServices>(queries);
        auto* provider = static_cast<CDorWEXWPDWMI*>(services);
        trace.Clear();
        EXPECT_EQ(provider->SendEvent(DorWEXWPDEvent{}), S_OK);
        EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{
                                     L"CDorWEXWPDWMI::SendEvent enter.\r\n",
                                     L"CDorWEXWPDWMI::SendEvent, ERROR: m_pIWbemObjectSink == NULL.\r\n",
                                     L"CDorWEXWPDWMI::SendEvent, ERROR: m_pIWbemServices == NULL.\r\n",
                                 }));
        // A put without an instance does nothing; a put from a client without context is refused.
        EXPECT_EQ(services->PutInstance(nullptr, 0, nullptr, nullptr), S_OK);
        EXPECT_EQ(services->DeleteInstance(nullptr, 0, nullptr, nullptr), E_FAIL);
        // What the provider does not serve is WBEM_E_NOT_SUPPORTED, whatever it is given.
        const HRESULT notServed[] = {
            services->OpenNamespace(nullptr, 0, nullptr, nullptr, nullptr),
            services->CancelAsyncCall(nullptr),
            services->QueryObjectSink(0, nullptr),
            services->GetObject(nullptr, 0, nullptr, nullptr, nullptr),
            services->PutClass(nullptr, 0, nullptr, nullptr),
            services->PutClassAsync(nullptr, 0, nullptr, nullptr),
            services->DeleteClass(nullptr, 0, nullptr, nullptr),
            services->DeleteClassAsync(nullptr, 0, nullptr, nullptr),
            services->CreateClassEnum(nullptr, 0, nullptr, nullptr),
            services->CreateClassEnumAsync(nullptr, 0, nullptr, nullptr),
            services->CreateInstanceEnum(nullptr, 0, nullptr, nullptr),
            services->ExecQuery(nullptr, nullptr, 0, nullptr, nullptr),
            services->ExecNotificationQuery(nullptr, nullptr, 0, nullptr, nullptr),
            services->ExecNotificationQueryAsync(nullptr, nullptr, 0, nullptr, nullptr),
            services->ExecMethod(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr),
        };
        for (size_t index = 0; index < std::size(notServed); ++index) {
            EXPECT_EQ(notServed[index], WBEM_E_NOT_SUPPORTED) << "operation " << index;
        }
        services->Release();
    }
    EXPECT_EQ(queries->Release(), 0u);
}

// Above level 1 each interface the provider answers is named in its own line, after the reference the answer
// added. An interface it does not implement (IWbemPropertyProvider among them) is E_NOINTERFACE: a table
// of another interface would send its callers into the wrong methods.
TEST(ProviderObject, EachAnsweredInterfaceIsNamedAboveLevelOne) {
    IUnknown* provider = CreateProviderObject<IUnknown>();
    ASSERT_NE(provider, nullptr);
    const struct {
        const IID* iid;
        const wchar_t* line;
    } cases[] = {
        {&IID_IWbemServices, L"CDorWEXWPDWMI::QueryInterface, IID_IWbemServices\r\n"},
        {&IID_IWbemEventProvider, L"CDorWEXWPDWMI::QueryInterface, IID_IWbemEventProvider\r\n"},
        {&IID_IWbemEventProviderQuerySink, L"CDorWEXWPDWMI::QueryInterface, IID_IWbemEventProviderQuerySink\r\n"},
        {&IID_IWbemProviderInit, L"CDorWEXWPDWMI::QueryInterface, IID_IWbemProviderInit\r\n"},
        {&IID_IUnknown, L"CDorWEXWPDWMI::QueryInterface, IID_IUnknown\r\n"},
    };
    for (const auto& c : cases) {
        TraceCapture trace(2);
        IUnknown* answer = nullptr;
        ASSERT_EQ(provider->QueryInterface(*c.iid, reinterpret_cast<void**>(&answer)), S_OK) << c.line;
        const std::vector<std::wstring> expected = {L"CDorWEXWPDWMI::AddRef, 2\r\n", c.line};
        EXPECT_EQ(trace.Lines(), expected);
        answer->Release();
    }
    for (const IID* iid : {&IID_IWbemEventConsumerProvider, &IID_IWbemPropertyProvider}) {
        TraceCapture trace(2);
        void* none = &trace;
        EXPECT_EQ(provider->QueryInterface(*iid, &none), E_NOINTERFACE);
        EXPECT_EQ(none, nullptr);
        EXPECT_EQ(trace.Lines(), std::vector<std::wstring>{L"CDorWEXWPDWMI::QueryInterface, E_NOINTERFACE\r\n"});
    }
    EXPECT_EQ(provider->Release(), 0u);
}

// The instance operations without an instance, a path or WMI's services, and the consumer lookup: each
// names itself, then the internal operation it hands the call to.
TEST(ProviderObject, InstanceOperationsNameThemselvesThenTheirWork) {
    IWbemServices* services = CreateProviderObject<IWbemServices>();
    ASSERT_NE(services, nullptr);
    auto* provider = static_cast<CDorWEXWPDWMI*>(services);
    const std::vector<std::wstring> put = {L"CDorWEXWPDWMI::PutInstance\r\n", L"CDorWEXWPDWMI::PutWPDInstance\r\n"};
    const std::vector<std::wstring> putAsync = {L"CDorWEXWPDWMI::PutInstanceAsync\r\n",
                                                L"CDorWEXWPDWMI::PutWPDInstance\r\n"};
    const std::vector<std::wstring> remove = {L"CDorWEXWPDWMI::DeleteInstance enter.\r\n",
                                              L"CDorWEXWPDWMI::DeleteWPDInstance enter.\r\n",
                                              L"CDorWEXWPDWMI::CreateWMIInstanceForWin32ext_WPD enter.\r\n"};
    const std::vector<std::wstring> removeAsync = {L"CDorWEXWPDWMI::DeleteInstanceAsync enter.\r\n",
                                                   L"CDorWEXWPDWMI::DeleteWPDInstance enter.\r\n",
                                                   L"CDorWEXWPDWMI::CreateWMIInstanceForWin32ext_WPD enter.\r\n"};
    {
        TraceCapture trace(1);
        EXPECT_EQ(services->PutInstance(nullptr, 0, nullptr, nullptr), S_OK);
        EXPECT_EQ(trace.Lines(), put);
    }
    {
        TraceCapture trace(1);
        EXPECT_EQ(services->PutInstanceAsync(nullptr, 0, nullptr, nullptr), S_OK);
        EXPECT_EQ(trace.Lines(), putAsync);
    }
    {
        TraceCapture trace(1);
        EXPECT_EQ(services->DeleteInstance(nullptr, 0, nullptr, nullptr), E_FAIL);
        EXPECT_EQ(trace.Lines(), remove);
    }
    {
        TraceCapture trace(1);
        EXPECT_EQ(services->DeleteInstanceAsync(nullptr, 0, nullptr, nullptr), E_FAIL);
        EXPECT_EQ(trace.Lines(), removeAsync);
    }
    {
        TraceCapture trace(1);
        IWbemUnboundObjectSink* consumer = reinterpret_cast<IWbemUnboundObjectSink*>(0x1234);
        EXPECT_EQ(static_cast<IWbemEventConsumerProvider*>(provider)->FindConsumer(nullptr, &consumer), S_OK);
        EXPECT_EQ(consumer, reinterpret_cast<IWbemUnboundObjectSink*>(0x1234)) << "the out pointer is left alone";
        EXPECT_EQ(trace.Lines(), std::vector<std::wstring>{L"CDorWEXWPDWMI::FindConsumer\r\n"});
    }
    EXPECT_EQ(services->Release(), 0u);
}

}  // namespace
