#!/usr/bin/env bash
# The installer package's tables, read with msiinfo, are those of a per-machine 64-bit package: no
# self-registration, the COM class in the Registry table, the MOF custom actions deferred and without
# impersonation (their rollback counterparts too), each given its MOF by a property of its own name, in an
# order that removes an older version first and compiles only after the files and keys are in place.
#   msi_tables_test.sh MSI ACTIONS-DLL
set -euo pipefail
msi=$1
actions_dll=$2
status=0
fail() {
    echo "FAIL: $*"
    status=1
}
table() { msiinfo export "$msi" "$1" | tail -n +4 | tr -d '\r'; }
field() {  # field TABLE KEY COLUMN: a row's column (1-based), the row found by its first column
    table "$1" | awk -F'\t' -v key="$2" -v column="$3" '$1 == key { print $column }'
}

tables=$(msiinfo tables "$msi")
grep -qx SelfReg <<<"$tables" && fail "the package has a SelfReg table"
summary=$(msiinfo suminfo "$msi")
grep -qx 'Template: x64;1033' <<<"$summary" || fail "template is not x64: $(grep Template <<<"$summary")"
[ "$(field Property ALLUSERS 2)" = 1 ] || fail "ALLUSERS is not 1 (per machine)"
[ -z "$(field Property MSIINSTALLPERUSER 2)" ] || fail "MSIINSTALLPERUSER is set"
[ "$(field Property ARPNOMODIFY 2)" = 1 ] || fail "ARPNOMODIFY is not 1"

# Both components are 64-bit (msidbComponentAttributes64bit) and live under ProgramFiles64Folder.
for component in ProviderDll ProviderMof DorwexFolder; do
    attributes=$(field Component "$component" 4)
    (( attributes & 0x100 )) || fail "component $component is not 64-bit (attributes $attributes)"
done
[ "$(field Directory DorwexFolder 2)" = ProgramFiles64Folder ] || fail "the files are not under ProgramFiles64Folder"

# The COM class as DllRegisterServer writes it, in HKLM (root 2).
clsid_key=$(table Registry | awk -F'\t' '$5 == "dorWEX WPD WMI Provider" { print $2 "|" $3 }')
[[ "$clsid_key" =~ ^2\|Software\\Classes\\CLSID\\\{[0-9A-F-]{36}\}$ ]] || fail "class key row: $clsid_key"
registry=$(table Registry | awk -F'\t' '{ print $2 "|" $3 "|" $4 "|" $5 "|" $6 }')
grep -Fqx "${clsid_key}\\InprocServer32||[#ProviderDll]|ProviderDll" <<<"$registry" || fail "InprocServer32 row: $registry"
grep -Fqx "${clsid_key}\\InprocServer32|ThreadingModel|Both|ProviderDll" <<<"$registry" || fail "ThreadingModel row"

# Custom actions: type bits (msidbCustomActionType*): 1 DLL in the Binary table, 0x100 rollback,
# 0x400 in-script (deferred), 0x800 no impersonation. CompileMof gets the installed MOF's path from the
# property of its own name; RemoveClasses compiles the uninstall MOF that the DLL carries.
while read -r action rollback entry path; do
    type=$(field CustomAction "$action" 2)
    [ -n "$type" ] || { fail "no custom action $action"; continue; }
    (( (type & 0x3f) == 1 && (type & 0x400) && (type & 0x800) )) ||
        fail "$action (type $type) is not a deferred DLL action without impersonation"
    (( ((type & 0x100) != 0) == rollback )) || fail "$action (type $type): rollback bit should be $rollback"
    [ "$(field CustomAction "$action" 3)" = DorwexMsiActions ] || fail "$action does not run the package's DLL"
    [ "$(field CustomAction "$action" 4)" = "$entry" ] || fail "$action does not call $entry"
    [ "$path" = - ] && continue
    # The immediate action that gives it its MOF (type 51: set a property), right before it in the sequence.
    setter="Set$action"
    (( ($(field CustomAction "$setter" 2) & 0x3f) == 51 )) || fail "$setter does not set a property"
    [ "$(field CustomAction "$setter" 3)" = "$action" ] || fail "$setter does not set $action's data"
    [ "$(field CustomAction "$setter" 4)" = "[INSTALLFOLDER]$path" ] || fail "$setter names $(field CustomAction "$setter" 4)"
    [ $(( $(field InstallExecuteSequence "$action" 3) - $(field InstallExecuteSequence "$setter" 3) )) = 1 ] ||
        fail "$setter does not come right before $action"
done <<'EOF'
CompileMof 0 CompileMof dorwex_wpd_provider.mof
RollbackCompileMof 1 RemoveClasses -
RemoveClasses 0 RemoveClasses -
RollbackRemoveClasses 1 CompileMof dorwex_wpd_provider.mof
EOF

# The order and the conditions of the execute sequence.
sequence() { field InstallExecuteSequence "$1" 3; }
before() {  # before A B WHY
    local a b
    a=$(sequence "$1")
    b=$(sequence "$2")
    [ -n "$a" ] && [ -n "$b" ] && [ "$a" -lt "$b" ] || fail "$1 ($a) is not before $2 ($b): $3"
}
before InstallValidate RemoveExistingProducts "a major upgrade removes the older version"
before RemoveExistingProducts InstallInitialize "the older version goes before anything of this one is installed"
before RollbackRemoveClasses RemoveClasses "the rollback of the removal is scheduled before it"
before RemoveClasses RemoveRegistryValues "the classes go while the COM class is still registered"
before RemoveClasses RemoveFiles "the classes go while the provider's files are still there"
before WriteRegistryValues RollbackCompileMof "the MOF is compiled after the COM class is written"
before InstallFiles RollbackCompileMof "the MOF is compiled from the installed folder"
before RollbackCompileMof CompileMof "a failed compile is rolled back too"
before CompileMof InstallFinalize "the compile runs in the installation's script"
for action in SetRollbackRemoveClasses RollbackRemoveClasses RemoveClasses; do
    [ "$(field InstallExecuteSequence "$action" 2)" = 'REMOVE~="ALL"' ] || fail "$action does not run on removal only"
done
for action in RollbackCompileMof SetCompileMof CompileMof; do
    [ "$(field InstallExecuteSequence "$action" 2)" = 'NOT REMOVE~="ALL"' ] || fail "$action runs on removal"
done

# Major upgrade: older versions of this upgrade code are found and removed, a newer one blocks.
upgrade_code=$(field Property UpgradeCode 2)
upgrades=$(table Upgrade | awk -F'\t' -v code="$upgrade_code" '$1 == code { print $2 "|" $3 "|" $5 "|" $7 }')
version=$(field Property ProductVersion 2)
grep -Fqx "|$version|1|WIX_UPGRADE_DETECTED" <<<"$upgrades" || fail "no upgrade of older versions: $upgrades"
grep -Fqx "$version||2|WIX_DOWNGRADE_DETECTED" <<<"$upgrades" || fail "no downgrade detection: $upgrades"
grep -Fqx 'NOT WIX_DOWNGRADE_DETECTED' <<<"$(table LaunchCondition | cut -f1)" || fail "a downgrade is not refused"

# The package's files are the provider's DLL and MOF, and the company folder goes with them on removal.
[ "$(table File | cut -f3 | sort | tr '\n' ' ')" = "dorwex_wpd_provider.dll dorwex_wpd_provider.mof " ] ||
    fail "files: $(table File | cut -f3)"
[ "$(table RemoveFile | cut -f2,4,5)" = "$(printf 'DorwexFolder\tDorwexFolder\t2')" ] ||
    fail "the company folder is not removed on uninstall: $(table RemoveFile)"

# The Binary table holds the custom-action DLL that was built (signed copies aside, byte for byte).
extract=$(mktemp -d)
trap 'rm -rf "$extract"' EXIT
(cd "$extract" && msiinfo extract "$msi" Binary.DorwexMsiActions >actions.dll)
if [ -z "${DORWEX_SIGN_PFX:-}" ]; then
    cmp -s "$extract/actions.dll" "$actions_dll" || fail "the Binary table does not hold the built custom-action DLL"
fi
[ $status = 0 ] && echo "the package's tables are those of a per-machine 64-bit package"
exit $status
