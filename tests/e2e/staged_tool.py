"""A folder with vorldiag.exe, a trace and a configuration that are written for a test."""

import shutil
import subprocess
import tempfile
from pathlib import Path

# A start of the service, line by line with the milliseconds since the one before.
START = [
    ("main", "Entry", 0),
    ("main", "After Calling SetClientAgentLogOptions", 2),
    ("IsClientUUIDPresent", "Entry", 1),
    ("CNTService::ParseStandardArgs", "No Arguments hence returning", 1),
    ("main", "Before Creating CAcAsSvc Object", 1),
    ("CNTService::StartService", "Before calling StartServiceCtrlDispatcher", 3),
    ("CNTService::ServiceMain", "Entry", 10),
    ("CNTService::Initialize", "Exit", 2),
    ("CAcAsSvc::Run", "Before calling GetClientAgentStartUpOptions", 1),
    ("CAcAsSvc::Run", "Calling for pending update...", 4),
    ("CAcAsSvc::Run", "After calling GetClientAgentStartUpOptions", 40),
    ("LoadVorlcoreDll", "Exit.", 5),
    ("CAcAsSvc::Run", "Before calling ClientAgentCoreStartUp", 1),
    ("CAcAsSvc::Run", "After calling ClientAgentCoreStartUp", 120),
    ("CAcAsSvc::Run", "Before Calling WaitForSingleObject", 1),
]
STOP = [
    ("CAcAsSvc::OnStop", "Entry", 5000),
    ("CAcAsSvc::Run", "After Calling WaitForSingleObject", 3),
    ("CAcAsSvc::Run", "After calling ClientAgentCoreCleanUp", 70),
    ("main", "Exit", 2),
]


class StagedTool:
    def __init__(self, repository, binaries):
        self.repository = Path(repository)
        self.folder = Path(tempfile.mkdtemp(dir=Path(binaries).parent))
        (self.folder / "logs").mkdir()
        (self.folder / "conf").mkdir()
        shutil.copy(Path(binaries) / "vorldiag.exe", self.folder)
        self.moment = 0
        self.failures = 0
        self.output = ""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.failures:
            print(self.output)
        shutil.rmtree(self.folder)

    def write_lines(self, lines, process=47, level="INFO", name="vorltrace.log"):
        """Adds lines (function, text, milliseconds since the one before) to the trace."""
        with open(self.folder / "logs" / name, "a", encoding="utf-8", newline="\r\n") as log:
            for function, text, pause in lines:
                self.moment += pause
                seconds, milliseconds = divmod(self.moment, 1000)
                log.write(f"2026-03-09 07:{seconds // 60:02}:{seconds % 60:02}.{milliseconds:03} "
                          f"+01:00 {level} {process} 11 vorlsrvc.exe {function} x.cpp:1 {text}\n")

    def write_configuration(self, text):
        (self.folder / "conf" / "vorlconf.ini").write_bytes(text.encode("cp1252"))

    def run(self, *arguments):
        """Exit code and output."""
        result = subprocess.run(
            [self.repository / "cmake/wine.sh", self.folder / "vorldiag.exe", *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            cwd=self.folder, check=False,
        )
        self.output = result.stdout.decode("utf-8").replace("\r\n", "\n")
        return result.returncode, self.output

    def expect(self, what, is_so):
        if not is_so:
            print("FAILED:", what)
            self.failures += 1
