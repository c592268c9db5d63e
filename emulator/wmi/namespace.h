// The one namespace the emulated WMI service holds (root\cimv2): its classes and static instances, the
// provider registered for them, loaded as WMI loads it, and the event subscriptions of clients. What is in
// it comes from a MOF read at the start (the provider's, when it lies next to the service's DLL or is named
// by DORWEX_WMI_MOF) and from the MOFs compiled since through IMofCompiler, which the machine's repository
// keeps for every later process.
#pragma once

#include <windows.h>
#include <wbemcli.h>
#include <wbemprov.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "class_object.h"
#include "mof_reader.h"

namespace dorwex::emulator::wmi {

// One condition of a WQL WHERE clause: property = value (or <>), all joined by AND.
struct QueryCondition {
    std::wstring property;
    std::wstring value;  // compared as text, without regard to case
    bool equal = true;
};

struct Query {
    std::wstring className;
    std::vector<std::wstring> properties;  // the selected properties; empty for "*"
    std::vector<QueryCondition> conditions;
};

// "SELECT * | a, b FROM class [WHERE a = 'x' AND b <> 2]"; false when the text is not such a query.
bool ParseQuery(const wchar_t* text, Query& query_out);
bool MatchesQuery(IWbemClassObject* object, const Query& query);

// Whether a namespace path names the one this service holds ("root\cimv2", "\\.\root\cimv2", ...).
bool IsServedNamespace(const std::wstring& path);

// What a compile reports, as WBEM_COMPILE_STATUS_INFO carries it: the phase that failed (0 none, 1 parsing,
// 2 arguments, 3 storing), the error, and the object at fault (1-based) with its lines.
struct CompileStatus {
    LONG phase = 0;
    HRESULT hr = WBEM_S_NO_ERROR;
    LONG objectNumber = 0;
    LONG firstLine = 0;
    LONG lastLine = 0;
};

// A static instance compiled into the namespace (a provider registration, for example).
struct StoredInstance {
    std::shared_ptr<const ClassDefinition> definition;
    IWbemClassObject* object = nullptr;  // owned by the namespace
};

class Namespace {
public:
    static Namespace& Get();

    // Reads the MOF once; the error text when it could not be read.
    HRESULT Load();
    std::wstring LoadError();
    std::shared_ptr<const ClassDefinition> FindClass(const std::wstring& name);

    // --- Compiling (compile.cpp) ---
    // Compiles MOF text as the MOF compiler does: statements are stored one after the other, so a failure
    // leaves those before it stored; what was stored is kept in the repository for later processes.
    // default_namespace applies to statements before any #pragma namespace (null: root\default).
    // check_only reads the text and stores nothing.
    CompileStatus Compile(const std::string& text, const std::wstring& default_namespace, bool check_only);
    // Copies of the static instances of a class and of the classes derived from it.
    std::vector<IWbemClassObject*> StaticInstances(const std::wstring& class_name);

    // The provider's IWbemServices for instance and method calls, loaded and initialised on first use (with
    // a reference for the caller). What it hands out counts as a call in flight until it is released: the
    // provider is not unloaded under it.
    HRESULT Provider(IWbemServices** provider_out);
    bool ProviderLoaded();
    // The Name of the registered __Win32Provider, which WMI reports as ProviderName in a status.
    std::wstring ProviderName();
    // Whether the registration asks for the client's identity (ImpersonationLevel = 1): WMI then calls the
    // provider in a client call context.
    bool ProviderImpersonates();

    // Event consumers. The first one makes the provider start its events (ProvideEvents); each has its
    // query registered with the provider (NewQuery) until it is cancelled (CancelQuery).
    HRESULT Subscribe(const wchar_t* query, IWbemObjectSink* sink);
    HRESULT Unsubscribe(IWbemObjectSink* sink);
    // Hands an event to every consumer whose query it matches (event_consumers.cpp). A consumer whose sink
    // fails it is cancelled.
    void DeliverEvent(IWbemClassObject* event);
    size_t SubscriptionCount();

    // --- Provider lifetime (provider_lifetime.cpp) ---
    // Releases the provider objects of every role, then lets COM free the provider's DLL if its
    // DllCanUnloadNow allows (module_freed_out tells whether it is gone). Subscriptions stay: the next
    // request loads the provider again and registers them anew. S_OK: unloaded; S_FALSE: nothing was
    // loaded; HRESULT_FROM_WIN32(ERROR_BUSY): a call is in flight, nothing was released.
    HRESULT UnloadProvider(bool* module_freed_out);
    // How long a provider may stay idle before it is unloaded, in milliseconds (0: never); the environment
    // variable DORWEX_WMI_CLEAR_AFTER_MS gives the first value.
    void SetClearAfter(DWORD milliseconds);
    // Whether the event role and the instance/method role get separate provider objects (from the next
    // load on); the environment variable DORWEX_WMI_SEPARATE_ROLES=1 gives the first value.
    void SetSeparateRoles(bool separate);
    // How long COM keeps the provider's DLL mapped after its DllCanUnloadNow said yes (CoFreeUnusedLibrariesEx's
    // delay; COM's own default for a multithreaded DLL is ten minutes); a request in that time loads nothing
    // new. DORWEX_WMI_FREE_DELAY_MS gives the first value, 0 when unset.
    void SetFreeDelay(DWORD milliseconds);
    // How long the service waits for IWbemProviderInitSink::SetStatus after it called Initialize.
    // DORWEX_WMI_INITIALIZE_TIMEOUT_MS gives the first value, 60000 when unset.
    void SetInitializeTimeout(DWORD milliseconds);
    struct LifetimeCounts {
        LONG initializations = 0;  // provider objects initialised successfully
        LONG moduleLoads = 0;      // loads that found the provider's module not mapped before
        LONG unloads = 0;          // unloads that released provider objects
        LONG objects = 0;          // distinct provider objects held now
        LONG eventSinks = 0;       // sinks given to ProvideEvents still alive
        LONG longestInitializeMs = 0;  // the longest a provider's Initialize held the service's thread
    };
    LifetimeCounts Counts();
    // The provider's host process ended (called from the wait on it): the service thread drops the objects
    // that lived there and starts the events again in a new host when consumers are subscribed.
    void HostEnded();
    // A provider call starts or ends (the calls handed out by Provider count themselves).
    void CallStarted();
    void CallEnded();

private:
    Namespace() = default;
    HRESULT LoadLocked();
    std::shared_ptr<const ClassDefinition> FindClassLocked(const std::wstring& name);

    // Under m_lock: the store emptied to the system classes, then what a process starts with (the MOF
    // read at the start, then every compile the repository kept).
    void ResetStoreLocked();
    HRESULT ReplayLocked(std::wstring& error_out);
    // Applies the first `count` statements of a document; stops at the first that fails.
    CompileStatus ApplyLocked(const mof::Document& document, const std::wstring& default_namespace, size_t count);
    HRESULT ApplyClassLocked(const mof::Class& declared);
    HRESULT ApplyInstanceLocked(const mof::Instance& declared, std::vector<std::pair<std::string, std::wstring>>& aliases);
    HRESULT ApplyDeletionLocked(const mof::Deletion& deletion);
    void RemoveClassLocked(const std::wstring& name);
    // The provider registration (class id, name, impersonation) from the stored __Win32Provider.
    void RefreshProviderLocked();

    // Under m_roleLock: the role objects, made (and initialised) when missing.
    HRESULT EnsureInstanceRole();
    // Also starts the events (ProvideEvents, NewQuery of every live subscription) when they are not
    // started on the current object; activated_out tells whether that happened.
    HRESULT EnsureEventRole(bool* activated_out);
    HRESULT CreateRoleObject(IUnknown** object_out);
    // The role objects taken out of the namespace, to be released outside its lock.
    struct HeldRoles {
        IWbemServices* calls = nullptr;
        IUnknown* instanceObject = nullptr;
        IUnknown* events = nullptr;
        IWbemObjectSink* sink = nullptr;
        void Release();
    };
    HeldRoles TakeRolesLocked();
    // Under m_roleLock: releases the role objects when the host they live in has ended.
    void DropRolesOfEndedHost();
    void ResumeAfterHostEnded();
    HRESULT UnloadProviderIf(bool idle_only, bool* module_freed_out);
    void StartServiceThread();
    void ServiceThread();

    struct Subscription {
        ULONG id;
        std::wstring text;
        Query query;
        IWbemObjectSink* sink;
        bool cancelling = false;  // its sink failed an event: it gets no more, and goes (CancelFailedConsumer)
    };

    // Takes every subscription of the sink out and tells the event role (CancelQuery); the caller gets the
    // sink references the subscriptions held. Calls no sink.
    std::vector<Subscription> RemoveSubscriptions(IWbemObjectSink* sink);
    // Cancels the subscriptions of a consumer whose sink failed an event, on a thread of its own.
    void CancelFailedConsumer(IWbemObjectSink* sink, HRESULT failure);

    std::mutex m_lock;
    // One load, unload or event start at a time; held while the provider is called to load or start, so
    // m_lock stays free for what the provider calls back.
    std::mutex m_roleLock;
    bool m_loaded = false;
    HRESULT m_loadResult = S_OK;
    std::wstring m_loadError;
    std::vector<std::shared_ptr<ClassDefinition>> m_classes;
    std::vector<StoredInstance> m_instances;
    CLSID m_providerClsid{};
    std::wstring m_providerName;
    bool m_providerImpersonates = false;
    IWbemServices* m_provider = nullptr;     // what calls on the instance and method role go through
    IUnknown* m_instanceObject = nullptr;    // the provider object of that role
    IUnknown* m_eventProvider = nullptr;     // the event role: the same object unless roles are separate
    IWbemObjectSink* m_eventSink = nullptr;  // what the provider indicates events to
    bool m_eventsProvided = false;           // ProvideEvents was called on the current event object
    std::vector<Subscription> m_subscriptions;
    ULONG m_nextQueryId = 1;

    bool m_settingsRead = false;
    bool m_separateRoles = false;
    DWORD m_clearAfter = 0;
    DWORD m_freeDelay = 0;
    DWORD m_initializeTimeout = 60000;
    // Initialize calls still running on the service's threads: a provider is not released under one.
    int m_initializeCalls = 0;
    std::condition_variable m_initializeDone;
    LONG m_callsInFlight = 0;
    DWORD m_lastActivity = 0;  // tick count of the last provider call's end or subscription change
    std::wstring m_modulePath;  // the module the provider's class was loaded from
    bool m_rolesShared = false;  // both roles are held by one object
    bool m_freePending = false;  // unloaded, but the DLL was still mapped after COM asked it
    DWORD m_roleGeneration = 0;  // the provider host the role objects live in
    bool m_hostEnded = false;    // a host ended; the service thread has not looked yet
    LifetimeCounts m_counts;
    bool m_serviceThreadStarted = false;
    std::condition_variable m_serviceWake;
};

// An IWbemServices of the namespace: what ConnectServer hands to clients and Initialize to the provider.
HRESULT CreateServices(REFIID riid, void** ppv);

}  // namespace dorwex::emulator::wmi
