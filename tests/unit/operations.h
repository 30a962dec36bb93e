// The lines of each operation of the program, as its tests expect them; those of the fingerprint
// are in tests/support/fingerprint_test.h.
#pragma once

#include "tests/support/expected_trace.h"

// service/
inline constexpr char kServiceSource[] = "service/ntservc.cpp";
inline constexpr ExpectedTrace kBaseConstructor{"CNTService::CNTService", kServiceSource};
inline constexpr ExpectedTrace kBaseDestructor{"CNTService::~CNTService", kServiceSource};
inline constexpr ExpectedTrace kParse{"CNTService::ParseStandardArgs", kServiceSource};
inline constexpr ExpectedTrace kIsInstalled{"CNTService::IsInstalled", kServiceSource};
inline constexpr ExpectedTrace kInstall{"CNTService::Install", kServiceSource};
inline constexpr ExpectedTrace kUninstall{"CNTService::Uninstall", kServiceSource};
inline constexpr ExpectedTrace kStartService{"CNTService::StartService", kServiceSource};
inline constexpr ExpectedTrace kServiceMain{"CNTService::ServiceMain", kServiceSource};
inline constexpr ExpectedTrace kInitialize{"CNTService::Initialize", kServiceSource};
inline constexpr ExpectedTrace kHandler{"CNTService::Handler", kServiceSource};
inline constexpr ExpectedTrace kSetStatus{"CNTService::SetStatus", kServiceSource};
inline constexpr ExpectedTrace kDebugMsg{"CNTService::DebugMsg", kServiceSource};
inline constexpr ExpectedTrace kBaseRun{"CNTService::Run", kServiceSource};
inline constexpr ExpectedTrace kBaseOnInit{"CNTService::OnInit", kServiceSource};
inline constexpr ExpectedTrace kBaseOnStop{"CNTService::OnStop", kServiceSource};
inline constexpr ExpectedTrace kBaseOnInterrogate{"CNTService::OnInterrogate", kServiceSource};
inline constexpr ExpectedTrace kBaseOnPause{"CNTService::OnPause", kServiceSource};
inline constexpr ExpectedTrace kBaseOnContinue{"CNTService::OnContinue", kServiceSource};
inline constexpr ExpectedTrace kBaseOnShutdown{"CNTService::OnShutdown", kServiceSource};
inline constexpr ExpectedTrace kBaseOnUserControl{"CNTService::OnUserControl", kServiceSource};

inline constexpr char kControlSource[] = "service/vorlfun.cpp";
inline constexpr ExpectedTrace kStartByName{"StartServiceByName", kControlSource};
inline constexpr ExpectedTrace kRecovery{"ConfigureServiceRecoveryOptionsW", kControlSource};

// agent/
inline constexpr char kAgentSource[] = "agent/vorlsvc.cpp";
inline constexpr ExpectedTrace kConstructor{"CAcAsSvc::CAcAsSvc", kAgentSource};
inline constexpr ExpectedTrace kDestructor{"CAcAsSvc::~CAcAsSvc", kAgentSource};
inline constexpr ExpectedTrace kOnInit{"CAcAsSvc::OnInit", kAgentSource};
inline constexpr ExpectedTrace kRun{"CAcAsSvc::Run", kAgentSource};
inline constexpr ExpectedTrace kOnStop{"CAcAsSvc::OnStop", kAgentSource};
inline constexpr ExpectedTrace kOnShutdown{"CAcAsSvc::OnShutdown", kAgentSource};
inline constexpr ExpectedTrace kOnUserControl{"CAcAsSvc::OnUserControl", kAgentSource};
inline constexpr ExpectedTrace kSaveStatus{"CAcAsSvc::SaveStatus", kAgentSource};
inline constexpr ExpectedTrace kLoadCore{"LoadVorlcoreDll", kAgentSource};
inline constexpr ExpectedTrace kPatch{"DoPendingPatchTasks", kAgentSource};

inline constexpr ExpectedTrace kWatch{"WaitForServiceClosure", "agent/cathdsvc.cpp"};

inline constexpr char kAttributesSource[] = "agent/secattrb.cpp";
inline constexpr ExpectedTrace kMakeAttributes{"CreateSecurityAttributeForEveryone",
                                               kAttributesSource};
inline constexpr ExpectedTrace kFreeAttributes{"FreeSecurityAttributeForEveryone",
                                               kAttributesSource};

// app/
inline constexpr char kProgramSource[] = "app/vorlsrvc.cpp";
inline constexpr ExpectedTrace kMain{"main", kProgramSource};
inline constexpr ExpectedTrace kIsPresent{"IsClientUUIDPresent", kProgramSource};
inline constexpr ExpectedTrace kSetIdentifier{"SetClientUUID", kProgramSource};
inline constexpr ExpectedTrace kCreateIdentifier{"CreateAndSetClientUUID", kProgramSource};
