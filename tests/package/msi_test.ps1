# The package under Windows' own installer: what msi_test.sh cannot show under Wine. Needs an elevated
# prompt on a machine without the product. It has not run anywhere yet.
param([Parameter(Mandatory)] [string] $Package)
$ErrorActionPreference = 'Stop'

$folder = "$env:ProgramFiles\Client Agent 1"
$service = 'Client Agent 1'

function Setup([string] $arguments, [int] $expected = 0) {
  $setup = Start-Process msiexec -ArgumentList "$arguments /qn /l*v setup.log" -Wait -PassThru
  if ($setup.ExitCode -ne $expected) {
    Get-Content setup.log -Tail 60
    throw "msiexec $arguments ended with $($setup.ExitCode), not $expected"
  }
}
function Expect([string] $what, $actual, $expected) {
  if ("$actual" -ne "$expected") { throw "${what}: '$actual', not '$expected'" }
}
function Identifier { (Select-String '^clientuniqueid=(.+)' "$folder\conf\vorlconf.ini").Matches[0].Groups[1].Value }
function Rights($path) { (Get-Acl $path).GetSecurityDescriptorSddlForm('Access') }

Setup "/i `"$Package`""
Expect 'state' (Get-Service $service).Status 'Running'
Expect 'depends on' (Get-Service $service).RequiredServices.Name 'Winmgmt'
$closed = 'D:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)'
foreach ($name in 'conf', 'logs', 'pending') { Expect $name (Rights "$folder\$name") $closed }
Expect 'program folder' (Rights $folder) 'D:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)'
Expect 'key' (Rights 'HKLM:\SOFTWARE\Client Agent\1') 'D:PAI(A;CI;KA;;;SY)(A;CI;KA;;;BA)'
$descriptor = (sc.exe sdshow $service) -join ''
if ($descriptor -match '\(A;;(?:[A-Z]{2})*?CR(?:[A-Z]{2})*;;;(IU|SU)\)') {
  throw "users may send user controls: $descriptor"
}
$identifier = Identifier

Remove-Item "$folder\vorldiag.exe"
Setup "/fomus `"$Package`""
if (-not (Test-Path "$folder\vorldiag.exe")) { throw 'not repaired' }
Expect 'state after the repair' (Get-Service $service).Status 'Running'

Setup "/x `"$Package`""
if (Get-Service $service -ErrorAction SilentlyContinue) { throw 'the service is left' }
Expect 'identifier after the removal' (Identifier) $identifier
Setup "/i `"$Package`""
Expect 'identifier of the new installation' (Identifier) $identifier

# A start that fails undoes everything; here because the options cannot be read.
Setup "/x `"$Package`" REMOVECONFIG=1"
if (Test-Path $folder) { throw 'the folder is left' }
New-Item -ItemType Directory "$folder\conf\vorlconf.ini" | Out-Null
Setup "/i `"$Package`"" 1603
if (Get-Service $service -ErrorAction SilentlyContinue) { throw 'the service is left' }
if (Test-Path "$folder\vorlsrvc.exe") { throw 'files are left' }
if (Test-Path 'HKLM:\SOFTWARE\Client Agent\1') { throw 'the key is left' }
Remove-Item -Recurse $folder
'passed'
