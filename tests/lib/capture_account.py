"""An account of a capture with a snapshot session: what it has to print, to call and to leave, whatever call fails.

A sweep over such a capture meets hundreds of faults, each with its own line, its own calls afterwards and its own
image. This walks through the run as the program promises it, asks at each call whether a fault takes it, and writes
down what must be seen. It shares nothing with the program, reads no log, and knows only what the commands of its sweeps
need: a base that is a full image, a tracker or none, volumes as described, a shadow service that is installed.
"""

import hashlib

from console import NO_TRACKER, fatal, fatal_status, meter, source_line
from image import Header, Record, Trailer, read_table
from snapshot import (ASYNC_FINISHED, ASYNC_PENDING, E_FAIL, FREEZING, GATHERING, OBJECT_NOT_FOUND, fall_back,
                      not_deleted, snapshotted, step_failed, writer_failed, writers_reported)

CHUNK = 0x400000
SHARING_VIOLATION = 32
VSS = "IVssBackupComponents::"


class Ended(Exception):
    """The run ended through the fatal report."""


class FaultList:
    """The entries of a description's `faults`, with the machine's rule for who takes which call."""

    def __init__(self, entries):
        self.entries = [{"skip": 0, "times": 1, **entry} for entry in entries]

    def take(self, name, path):
        for entry in self.entries:
            if entry["call"] != name or (path is not None and entry.get("path", "") not in path):
                continue
            if entry["skip"]:
                entry["skip"] -= 1
            elif entry["times"]:
                entry["times"] -= 1
                return entry
        return {}


class WorkFile:
    """The image file in the making, written exactly as the calls that succeed write it."""

    def __init__(self):
        self.content, self.position = bytearray(), 0
        self.foreseeable = True  # False: it holds bytes of which only the length is known

    def write(self, data):
        if not data:
            return
        end = self.position + len(data)
        if len(self.content) < end:
            self.content.extend(bytes(end - len(self.content)))
        self.content[self.position:end] = data
        self.position = end


class Account:
    """One run of `capture`. After `run()`: `status`, `stdout`, `stderr`, `calls` and what the files must hold.

    `calls` has (name, path, offset) for each line of the log; path and offset are None where the call has none.
    """

    def __init__(self, machine, out, *, disk=1, encrypt=False, password_file="password.txt", base=None, thin=False):
        self.machine, self.description = machine, machine.description
        self.disk, self.out, self.encrypt, self.base_path, self.thin = disk, out, encrypt, base, thin
        self.password_file = password_file
        self.faults = FaultList(self.description.get("faults", []))
        self.calls, self.printed, self.stderr, self.status = [], [], "", 0
        self.source = machine.disk_bytes(disk)
        self.components = self.com = self.set_created = self.hooked = False
        self.shadows, self.ranges = [], []
        self.tracker = None        # the driver's record of the disk once the query succeeded
        self.device_open = self.committed = False
        self.work = None           # the WorkFile once it exists
        self.work_name = out if out.endswith(".partial") else out + ".partial"
        self.published = False
        self.sound = True          # nothing that a reader would refuse went wrong unnoticed
        self.looks = 0

    # --- Calls ---

    def call(self, name, path=None, offset=None):
        """A call that the run makes now; gives the fault that takes it, or an empty dict."""
        self.calls.append((name, path, offset))
        return self.faults.take(name, path)

    def ok(self, name, path=None, offset=None):
        """A call that reports through the last error; gives whether it succeeds."""
        effect = self.call(name, path, offset)
        self.error = effect.get("error")
        return "error" not in effect

    def status_of(self, name, path=None):
        effect = self.call(name, path)
        return int(effect["status"], 16) if "status" in effect else 0

    def print(self, text):
        self.printed.append(text)

    def die(self, message, error=None):
        self.stderr += fatal(message, error) if error is not None else fatal(message)
        raise Ended

    def die_with_status(self, message, status):
        self.stderr += fatal_status(message, status)
        raise Ended

    @property
    def stdout(self):
        return "".join(self.printed)

    # --- The run ---

    def run(self):
        try:
            self.capture()
        except Ended:
            self.status = 1
        if self.hooked:
            self.end_session(False)
        self.call("exit")
        return self

    def capture(self):
        self.open_source()
        self.open_tracker()
        self.begin_session()
        self.query_tracker()
        if self.thin and self.base_path is None:
            self.die("--thin needs --base")
        self.base, self.proved = None, False
        if self.base_path is not None:
            self.open_base()
        self.make_header()
        self.create_work_file()
        self.copy_chunks()
        if self.thin:
            if self.base_digest is None:
                self.work.foreseeable = False
            trailer = Trailer(self.base_path.encode(), self.base_digest or bytes(32)).pack()
            if not self.write_file(trailer):
                self.die("could not write thin image trailer", self.error)
        self.close_off()
        self.end_session(True)
        self.commit_and_publish()
        self.destroy_key(self.encrypt)
        if self.device_open:
            self.call("CloseHandle", "\\\\.\\Wendrel")

    def open_source(self):
        path = self.source_path = f"\\\\.\\PhysicalDrive{self.disk}"
        if not self.ok("CreateFileW", path):
            self.die("could not open source disk for raw read (run as Administrator?)", self.error)
        for code in ("LENGTH_INFO", "DRIVE_GEOMETRY_EX"):
            if not self.ok("DeviceIoControl", path):
                self.die(f"IOCTL_DISK_GET_{code} failed", self.error)
        self.length = len(self.source)
        self.count = (self.length - 1) // CHUNK + 1
        self.print(source_line(self.disk, self.length))
        if not self.ok("CreateFileW", "\\\\.\\C:"):
            self.die("could not open C: to determine the system disk number", self.error)
        answered = self.ok("DeviceIoControl", "\\\\.\\C:")
        error = self.error
        self.call("CloseHandle", "\\\\.\\C:")
        if not answered:
            self.die("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", error)

    # --- The tracker ---

    def open_tracker(self):
        self.attached = False
        if self.ok("CreateFileW", "\\\\.\\Wendrel") and "tracker" in self.description:
            self.device_open = True
            self.attached = self.ok("DeviceIoControl", "\\\\.\\Wendrel")

    def query_tracker(self):
        # The first reply has no room for the bitmap: what counts is the status in it, which a fault leaves zero.
        if (self.attached and self.ok("DeviceIoControl", "\\\\.\\Wendrel")
                and self.ok("DeviceIoControl", "\\\\.\\Wendrel")):
            self.tracker = self.machine.tracker_disk(self.disk)
            self.print(f"Change tracker: disk {self.disk} epoch {self.tracker['current_epoch']:X}\n")
        else:
            self.print(NO_TRACKER)

    def changed(self, offset, length):
        bitmap = bytes.fromhex(self.tracker["bitmap"])
        for bit in range(offset >> 16, (offset + length - 1 >> 16) + 1):
            if bit // 8 >= len(bitmap) or bitmap[bit // 8] >> bit % 8 & 1:
                return True
        return False

    # --- The session ---

    def begin_session(self):
        self.hooked = True
        failed = self.prepare_session()
        if failed is None:
            volumes = self.add_volumes()
            failed = self.take_snapshot() if volumes else ("no volume on this disk could be snapshotted", 1)
        if failed is not None:
            self.print(fall_back(*failed))
            self.end_session(False)
            return
        self.report_writers()
        self.open_shadows(volumes)
        self.ranges.sort(key=lambda found: found[0])
        self.print(snapshotted(len(self.ranges)))

    def prepare_session(self):
        """None, or the reason and the status of what failed."""
        status = self.status_of("CoInitializeEx")
        if status:
            return "CoInitializeEx failed", status
        self.com = True
        status = self.status_of("CoInitializeSecurity")
        if status:
            return "CoInitializeSecurity failed", status
        status = self.status_of("CreateVssBackupComponents")
        if status:
            return "VSS is not available here (CreateVssBackupComponents)", status
        self.components = True
        for step in ("InitializeForBackup", "SetContext", "SetBackupState"):
            status = self.status_of(VSS + step)
            if status:
                return f"{step} failed", status
        self.print(GATHERING)
        failed = self.run_async("GatherWriterMetadata")
        if failed is not None:
            return failed
        status = self.status_of(VSS + "StartSnapshotSet")
        return ("StartSnapshotSet failed", status) if status else None

    def run_async(self, step):
        """None where the step completed, or its reason and the status of the call itself."""
        effect = self.call(VSS + step)
        if "status" in effect:
            return f"{step} failed", int(effect["status"], 16)
        if effect.get("null_async") or not self.wait_for(step):
            return f"{step} failed", 0
        return None

    def wait_for(self, step):
        wait = self.status_of("IVssAsync::Wait")
        effect = self.call("IVssAsync::QueryStatus")
        # On a described machine a step is pending until it was waited for.
        status = ASYNC_PENDING if wait else ASYNC_FINISHED
        if "async_status" in effect:
            status = int(effect["async_status"], 16)
        if "status" in effect:
            status = E_FAIL  # the variable keeps what it was set to beforehand
        self.call("IVssAsync::Release")
        if wait or "status" in effect or status != ASYNC_FINISHED:
            self.print(step_failed(step, wait=wait, status=status))
            return False
        return True

    def add_volumes(self):
        added = []
        for volume in self.find_volumes():
            name, device = volume["name"], volume["name"].removesuffix("\\")
            status = self.status_of(VSS + "IsVolumeSupported", name)
            if status or not volume.get("supported", True):
                self.print(f"  --vss: volume {device} can't be snapshotted (removable/unsupported) - it will be read"
                           " live.\n")
                continue
            status = self.status_of(VSS + "AddToSnapshotSet", name)
            if status:
                self.print(f"  --vss: could not add volume {device} to the snapshot set (0x{status:08X}) - read"
                           " live.\n")
                continue
            added.append(volume)
            extent = volume["extents"][0]
            self.print(f"  --vss: snapshotting volume {device} (disk offset {extent['start']},"
                       f" {extent['length'] * 2.0 ** -30:.2f} GiB) ...\n")
        return added

    def find_volumes(self):
        found, listed = [], self.description.get("volumes", [])
        if not self.ok("FindFirstVolumeW") or not listed:
            return found
        for place, volume in enumerate(listed):
            device = volume["name"].removesuffix("\\")
            if self.ok("CreateFileW", device):
                answered = self.ok("DeviceIoControl", device)
                self.call("CloseHandle", device)
                extents = volume["extents"]
                if answered and len(extents) == 1 and extents[0]["disk"] == self.disk:
                    found.append(volume)
            if not self.ok("FindNextVolumeW") or place == len(listed) - 1:
                break
        self.call("FindVolumeClose")
        return found

    def take_snapshot(self):
        self.print(FREEZING)
        failed = self.run_async("PrepareForBackup") or self.run_async("DoSnapshotSet")
        self.set_created = failed is None
        return failed

    def report_writers(self):
        if self.run_async("GatherWriterStatus") is not None or self.status_of(VSS + "GetWriterStatusCount"):
            return
        writers = self.description["shadow_service"]["writers"]
        failed = 0
        for writer in writers:
            if self.status_of(VSS + "GetWriterStatus"):
                continue
            if 6 <= writer["state"] <= 15:
                name = "?" if writer["name"] is None else writer["name"]
                self.print(writer_failed(name, writer["state"], writer["failure"]))
                failed += 1
            self.call("SysFreeString")
        self.call(VSS + "FreeWriterStatus")
        self.print(writers_reported(len(writers), failed))

    def open_shadows(self, volumes):
        for place, volume in enumerate(volumes):
            status = self.status_of(VSS + "GetSnapshotProperties")
            if status:
                device = volume["name"].removesuffix("\\")
                self.print(f"  --vss: GetSnapshotProperties failed for {device} (0x{status:08X}) - read live.\n")
                continue
            self.call("VssFreeSnapshotProperties")
            path = f"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy{place + 1}"
            if not self.ok("CreateFileW", path):
                self.print(f"  --vss: could not open shadow device {path} (GetLastError={self.error}) - read live.\n")
                continue
            extent = volume["extents"][0]
            self.shadows.append(path)
            self.ranges.append((extent["start"], extent["start"] + extent["length"], path, volume))

    def end_session(self, completed):
        for path in self.shadows:
            self.call("CloseHandle", path)
        self.shadows = []
        if self.components:
            if self.set_created:
                self.end_set(completed)
            self.call(VSS + "Release")
            self.components = self.set_created = False
        if self.com:
            self.call("CoUninitialize")
            self.com = False

    def end_set(self, completed):
        if not completed:
            self.call(VSS + "AbortBackup")
        else:
            effect = self.call(VSS + "BackupComplete")
            if "status" in effect:
                self.call(VSS + "AbortBackup")
            elif not effect.get("null_async"):
                self.wait_for("BackupComplete")
        status = self.status_of(VSS + "DeleteSnapshots")
        if status and status != OBJECT_NOT_FOUND:
            self.print(not_deleted(status))

    # --- Hashes and keys ---

    def hash(self, data, before=None):
        """The digest that the caller is left with; `before` is what its place held."""
        status = self.status_of("BCryptOpenAlgorithmProvider")
        if status:
            self.die_with_status("BCryptOpenAlgorithmProvider(SHA256)", status)
        self.call("BCryptGetProperty")
        status = self.status_of("BCryptCreateHash")
        if status:
            self.die_with_status("BCryptCreateHash", status)
        hashed = b"" if self.status_of("BCryptHashData") else data
        finished = not self.status_of("BCryptFinishHash")
        self.call("BCryptDestroyHash")
        self.call("BCryptCloseAlgorithmProvider")
        digest = hashlib.sha256(hashed).digest() if finished else before
        if digest != hashlib.sha256(data).digest():
            self.sound = False
        return digest

    def draw(self):
        status = self.status_of("BCryptOpenAlgorithmProvider")
        if status:
            self.die_with_status("BCryptOpenAlgorithmProvider(RNG)", status)
        status = self.status_of("BCryptGenRandom")
        if status:
            self.die_with_status("BCryptGenRandom", status)
        self.call("BCryptCloseAlgorithmProvider")

    def derive_key(self):
        for name, message in (("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(HMAC-SHA256)"),
                              ("BCryptDeriveKeyPBKDF2", "BCryptDeriveKeyPBKDF2"),
                              ("BCryptCloseAlgorithmProvider", None),
                              ("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(AES)"),
                              ("BCryptSetProperty", "BCryptSetProperty(GCM)"),
                              ("BCryptGetProperty", None),
                              ("BCryptGenerateSymmetricKey", "BCryptGenerateSymmetricKey")):
            status = self.status_of(name)
            if status and message:
                self.die_with_status(message, status)

    def destroy_key(self, held):
        if held:
            self.call("BCryptDestroyKey")
            self.call("BCryptCloseAlgorithmProvider")

    # --- The base ---

    def open_base(self):
        path = self.base_path
        self.print(f"Incremental mode: base image {path}\n")
        if not self.ok("CreateFileW", path):
            self.stderr += f"could not open image file: {path}\n"
            self.die("could not open image file", self.error)
        with open(self.machine.path(path), "rb") as file:
            content = file.read()
        header, self.base = read_table(self.machine.path(path))
        table = 72 * header.chunk_count
        self.base_offset = 64 + table
        self.base_content = content
        if not self.read_whole(path, 0, 64):
            self.die("could not read image header - file is truncated or not a .vrnx image", self.error)
        if not self.ok("GetFileSizeEx", path):
            self.die("image is truncated before its chunk table", self.error)
        if not self.read_whole(path, 64, table):
            self.die("could not read chunk table - image is truncated", self.error)
        self.base_digest = self.hash(content[:64 + table])
        self.settle_mode(path, header.epoch)

    def settle_mode(self, path, epoch):
        reason = None
        if self.tracker is None:
            reason = "no change tracker for this disk"
        elif self.tracker.get("previous_epoch") != epoch:
            reason = "base image is not the most recent committed image"
        self.proved = reason is None
        if self.proved:
            self.print(f"  --base: base epoch {epoch:X} matches tracker; unchanged chunks will be copied from the base"
                       " image.\n")
        elif self.thin:
            self.print(f"  --base: cannot prove what changed ({reason}) - reading every chunk and comparing hashes with"
                       " the base (no driver needed; slower to read, still a small file).\n")
        else:
            self.print(f"  --base: cannot prove what changed ({reason}) - doing a FULL capture (correct, just"
                       " slower).\n")
            self.call("CloseHandle", path)
        if self.thin:
            if self.call("_fullpath", path).get("null") or self.call("_fullpath", self.out).get("null"):
                self.die("could not resolve image paths")

    def read_base_chunk(self, index, length):
        offset = self.base_offset + index * CHUNK
        if not (self.ok("SetFilePointerEx", self.base_path, offset)
                and self.read_whole(self.base_path, offset, length)):
            self.die("could not read chunk data from image (truncated?)", self.error)
        data = self.base_content[offset:offset + length]
        if self.hash(data) != self.base[index].hash:
            self.die("chunk failed its hash check (corrupt image or base)")
        return data

    # --- The image file ---

    def make_header(self):
        epoch = self.tracker["current_epoch"] if self.tracker else 0
        self.header = Header(self.length, CHUNK, self.count, version=3 if self.thin else 2, encrypted=int(self.encrypt),
                             epoch=epoch)
        if self.encrypt:
            self.draw()
            self.header.kdf_iterations = 200000
            self.derive_key()

    def create_work_file(self):
        if self.work_name != self.out:
            failed = "error" in self.call("GetFileAttributesA", self.out)
            if not failed and self.machine.exists(self.out):
                self.die("refusing to overwrite an existing output image")
        if not self.ok("CreateFileW", self.work_name):
            self.die("could not create output image file", self.error)
        self.work = WorkFile()
        self.seek_file(64 + 72 * self.count)
        for _ in range(2):
            if self.call("_aligned_malloc").get("null"):
                self.die("out of memory allocating aligned I/O buffer")
        self.call("GetTickCount64")

    def seek_file(self, offset):
        if self.ok("SetFilePointerEx", self.work_name, offset):
            self.work.position = offset
        else:
            self.sound = False  # not looked at: what follows lands elsewhere

    def write_file(self, data):
        effect = self.call("WriteFile", self.work_name, self.work.position)
        self.error = effect.get("error")
        done = len(data)
        if "transferred" in effect:
            done = min(done, effect["transferred"])
        elif "error" in effect:
            done = 0
        self.work.write(data[:done])
        return done == len(data) and "error" not in effect

    def read_whole(self, path, offset, length):
        effect = self.call("ReadFile", path, offset)
        self.error = effect.get("error")
        return "error" not in effect and effect.get("transferred", length) == length

    def copy_chunks(self):
        self.records, self.read, self.copied, self.references = [], 0, 0, 0
        for index in range(self.count):
            offset = index * CHUNK
            length = min(CHUNK, self.length - offset)
            record = Record(offset, length, bytes(32))
            self.records.append(record)
            self.copy_chunk(index, offset, length, record)
            if index % 32 == 0 or index == self.count - 1:
                self.call("GetTickCount64")
                self.looks += 1
                self.print(meter(offset + length, self.length, self.looks))
        self.print("\n")

    def copy_chunk(self, index, offset, length, record):
        if self.proved and not self.changed(offset, length):
            record.hash = self.base[index].hash
            if self.thin:
                record.stored_length = 0
                self.references += 1
                return
            data = self.read_base_chunk(index, length)
            self.copied += 1
        else:
            data = self.read_chunk(offset, length)
            record.hash = self.hash(data, before=bytes(32))
            self.read += 1
            if self.thin and record.hash == self.base[index].hash:
                record.stored_length = 0
                self.references += 1
                return
        if self.encrypt:
            self.draw()
            status = self.status_of("BCryptEncrypt")
            if status:
                self.die_with_status("BCryptEncrypt", status)
            self.work.foreseeable = False
        if not self.write_file(data):
            self.die("WriteFile to image file failed mid-capture (disk full?)", self.error)

    def read_chunk(self, offset, length):
        path, position, data = self.source_path, offset, self.source
        for start, end, device, volume in self.ranges:
            if offset >= start and offset + length <= end:
                path, position, data = device, offset - start, self.frozen(volume)
                break
        if not self.ok("SetFilePointerEx", path, position):
            self.die("SetFilePointerEx on source failed mid-capture", self.error)
        if not self.read_whole(path, position, length):
            self.die("ReadFile from source disk failed mid-capture - image is incomplete, do not trust it", self.error)
        return data[position:position + length]

    def frozen(self, volume):
        file = volume.get("shadow", {}).get("file")
        if file is not None:
            with open(f"{self.machine.home}/{file}", "rb") as stream:
                return stream.read()
        extent = volume["extents"][0]
        return self.source[extent["start"]:extent["start"] + extent["length"]]

    def close_off(self):
        self.seek_file(0)
        self.write_file(self.header.pack())
        self.write_file(b"".join(record.pack() for record in self.records))
        self.closed = self.ok("CloseHandle", self.work_name)
        self.call("CloseHandle", self.source_path)
        if self.proved or self.thin:
            self.call("CloseHandle", self.base_path)

    def commit_and_publish(self):
        if self.tracker is not None:
            self.committed = self.ok("DeviceIoControl", "\\\\.\\Wendrel")
            if not self.committed:
                self.print("WARNING: tracker COMMIT failed - the next capture will be a full one.\n")
        if self.work_name != self.out:
            if not self.ok("MoveFileExW"):
                self.die("could not atomically publish completed image", self.error)
            if not self.closed:
                # The file is still open, and nobody shares it.
                self.die("could not atomically publish completed image", SHARING_VIOLATION)
        self.published = True
        if self.thin:
            self.print(f"Capture complete (thin): {self.out}  (stored {self.count - self.references} of {self.count}"
                       f" chunks, {self.references} are references to the base; read from disk: {self.read})\n")
        elif self.proved:
            self.print(f"Capture complete: {self.out} (Read from disk: {self.read}, Copied from base: {self.copied}"
                       " chunks)\n")
        else:
            self.print(f"Capture complete: {self.out}\n")

    # --- What is left behind ---

    @property
    def image_name(self):
        """Where the image file lies at the end, or None where none was made."""
        return None if self.work is None else self.out if self.published else self.work_name

    def plain(self):
        """The disk that the chunks as they were taken stand for; of a run that came to the end of its loop."""
        taken = bytearray(self.source)
        for start, end, _, volume in self.ranges:
            for index in range(self.count):
                first, last = index * CHUNK, min((index + 1) * CHUNK, self.length)
                if first >= start and last <= end and not (self.proved and not self.changed(first, last - first)):
                    taken[first:last] = self.frozen(volume)[first - start:last - start]
        return bytes(taken)
