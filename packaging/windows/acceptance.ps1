# Tries vornix.exe on a real Windows, on two virtual disks of its own, and says how many of the trials went as expected.
#
#   powershell.exe -NoProfile -ExecutionPolicy Bypass -File acceptance.ps1
#   powershell.exe -NoProfile -ExecutionPolicy Bypass -File acceptance.ps1 -Vornix C:\tools\vornix.exe -Work D:\trial
#
# Takes a few minutes, 4 GB of room in the folder of -Work, and an administrator. The last line is
# `N passed, N failed`; the exit status is 0 only if nothing failed.
#
# It writes to no disk that it did not make: the two disks are files in its own folder, made and attached by diskpart,
# and before every command line that names one of them as a target it looks whether that number is still the disk of
# that file. One trial names the system's disk, to see it refused; -SkipSystemDisk leaves it out. At the end the disks
# are detached and the folder is removed.
#
# This script has not been run yet: there was no Windows and no PowerShell where it was written. Its command lines of
# vornix run in the tests, in this order and with these expectations, on a described machine; the rest has been read
# only.

param(
    [string]$Vornix = (Join-Path $PSScriptRoot 'vornix.exe'),
    [string]$Work = "$env:SystemDrive\vornix-acceptance",
    [switch]$SkipSystemDisk
)

Set-StrictMode -Version 2
$ErrorActionPreference = 'Stop'
$passed = 0
$failed = 0
$sizeInMiB = 400
$wholeSize = $sizeInMiB * 1MB

# --- The two disks ----------------------------------------------------------------------------------------------------

# Gives diskpart the lines; ends the script where it fails.
function Invoke-DiskPart([string[]]$lines) {
    $script = Join-Path $Work 'diskpart.txt'
    Set-Content -LiteralPath $script -Value $lines -Encoding Ascii
    $said = & diskpart.exe /s $script 2>&1
    if ($LASTEXITCODE -ne 0) { throw "diskpart failed: $($said -join ' ')" }
}

function New-OwnDisk([string]$file, [string]$label, [string]$letter) {
    Invoke-DiskPart @(
        "create vdisk file=`"$file`" maximum=$sizeInMiB type=expandable"
        'attach vdisk'
        'create partition primary'
        "format fs=ntfs quick label=$label"
        "assign letter=$letter"
    )
}

# The number of the disk that the file is attached as. Throws unless everything about it is as this script made it.
function Get-OwnNumber([string]$file) {
    if (-not $file.StartsWith("$Work\")) { throw "$file is not in the folder of this script" }
    $image = Get-DiskImage -ImagePath $file
    if (-not $image.Attached) { throw "$file is not attached" }
    $disk = Get-Disk -Number $image.Number
    if ("$($disk.BusType)" -ne 'File Backed Virtual') { throw "disk $($disk.Number) is no virtual disk" }
    if ("$($disk.Location)" -ne $file) { throw "disk $($disk.Number) is $($disk.Location) and not $file" }
    if ($disk.Size -ne $wholeSize) { throw "disk $($disk.Number) has $($disk.Size) bytes" }
    if ($disk.IsBoot -or $disk.IsSystem) { throw "disk $($disk.Number) is the system's" }
    [int]$disk.Number
}

function Set-OwnDiskOffline([string]$file, [bool]$offline) {
    $number = Get-OwnNumber $file
    Set-Disk -Number $number -IsOffline $offline
    if (-not $offline) { Set-Disk -Number $number -IsReadOnly $false }
}

function Get-FreeLetters {
    $used = @(Get-PSDrive -PSProvider FileSystem | ForEach-Object { $_.Name })
    @('Z', 'Y', 'X', 'W', 'V', 'U', 'T', 'S', 'R', 'Q', 'P' | Where-Object { $used -notcontains $_ })
}

# --- Trials -----------------------------------------------------------------------------------------------------------

function Add-Result([string]$title, [bool]$good, [string]$what) {
    if ($good) {
        $script:passed++
        Write-Host "ok      $title"
    } else {
        $script:failed++
        Write-Host "FAILED  $title"
        Write-Host "        $what"
    }
}

# One run of vornix: its title, the exit status and a text of its output that are expected, and its arguments. A run
# that names a target is not begun unless the target is the disk of this script that it has to be.
function Step([string]$title, [int]$status, [string]$text, [string]$line) {
    $arguments = $line -split ' '
    $named = [array]::IndexOf($arguments, '--to')
    if ($arguments[0] -eq 'restore') { $named = [array]::IndexOf($arguments, '--disk') }
    if ($named -ge 0 -and $title -ne $systemDiskTrial) {
        $number = [int]$arguments[$named + 1]
        if ($number -ne (Get-OwnNumber $targetFile)) { throw "disk $number is not the target of this script" }
    }
    $ErrorActionPreference = 'Continue'  # what a program says on standard error is no error of this script
    $said = (& $Vornix @arguments 2>&1 | ForEach-Object { "$_" }) -join "`n"
    $ended = $LASTEXITCODE
    Add-Result $title ($ended -eq $status -and $said.Contains($text)) `
        "vornix $line ended with $ended and not with $status '$text': $said"
}

function Test-Same([string]$title, [string]$first, [string]$second) {
    $same = (Get-FileHash -LiteralPath $first).Hash -eq (Get-FileHash -LiteralPath $second).Hash
    Add-Result $title $same "$first and $second differ"
}

# The names and hashes of the files on a drive, as one text.
function Get-Files([string]$letter) {
    @(Get-ChildItem -LiteralPath "$letter`:\" -File | Sort-Object Name |
        ForEach-Object { "$($_.Name) $((Get-FileHash -LiteralPath $_.FullName).Hash)" }) -join "`n"
}

function Add-Files([string]$letter, [string]$name, [int]$count) {
    $random = New-Object Random 20261122
    for ($index = 1; $index -le $count; $index++) {
        $bytes = New-Object byte[] 1048576
        $random.NextBytes($bytes)
        [IO.File]::WriteAllBytes("$letter`:\$name$index.bin", $bytes)
    }
}

# Inverts one bit in the middle of a file.
function Break-File([string]$path) {
    $file = [IO.File]::Open($path, [IO.FileMode]::Open, [IO.FileAccess]::ReadWrite)
    try {
        $file.Position = [int64]($file.Length / 2)
        $byte = $file.ReadByte()
        $file.Position = $file.Position - 1
        $file.WriteByte([byte]($byte -bxor 1))
    } finally { $file.Dispose() }
}

# --- The run ----------------------------------------------------------------------------------------------------------

$principal = New-Object Security.Principal.WindowsPrincipal ([Security.Principal.WindowsIdentity]::GetCurrent())
if (-not $principal.IsInRole([Security.Principal.WindowsBuiltInRole]::Administrator)) { throw 'Run as Administrator.' }
if (-not (Test-Path -LiteralPath $Vornix)) { throw "$Vornix is missing; say where it is with -Vornix." }
if ($Work -match ' ') { throw 'The folder of -Work must have no blank in its name.' }
if (Test-Path -LiteralPath $Work) { throw "$Work is there already; remove it, or name another folder with -Work." }
$letters = @(Get-FreeLetters)
if ($letters.Count -lt 2) { throw 'No two drive letters are free.' }
$sourceLetter = $letters[0]
$targetLetter = $letters[1]
$Work = (New-Item -ItemType Directory -Path $Work).FullName
$sourceFile = "$Work\source.vhdx"
$targetFile = "$Work\target.vhdx"
$systemDisk = [int](Get-Partition -DriveLetter $env:SystemDrive[0]).DiskNumber
$systemDiskTrial = 'a restore onto the disk that Windows runs from is refused'

try {
    New-OwnDisk $sourceFile 'SOURCE' $sourceLetter
    New-OwnDisk $targetFile 'TARGET' $targetLetter
    $source = Get-OwnNumber $sourceFile
    $target = Get-OwnNumber $targetFile
    if ($source -gt 15 -or $target -gt 15) { throw 'list-disks shows disks 0 to 15, and these have higher numbers' }
    Add-Files $sourceLetter 'first' 20
    [IO.File]::WriteAllText("$Work\password.txt", 'correct horse battery staple')
    [IO.File]::WriteAllText("$Work\other.txt", 'wrong horse')

    Step 'the source is listed' 0 "PhysicalDrive$source " `
        "list-disks"
    Step 'the target is listed' 0 "PhysicalDrive$target " `
        "list-disks"

    # While both are in use.
    Step 'a mounted disk is captured live' 0 'Capture complete' `
        "capture --disk $source --out $Work\live.vrnx"
    Step 'the live image is good' 0 'Verify OK' `
        "verify --in $Work\live.vrnx"
    Step 'a mounted disk is captured from a shadow copy' 0 '--vss: 1 volume(s) snapshotted' `
        "capture --disk $source --out $Work\shadow.vrnx --vss"
    Step 'the image of the shadow copy is good' 0 'Verify OK' `
        "verify --in $Work\shadow.vrnx"
    Step 'an image is not overwritten' 1 'refusing to overwrite' `
        "capture --disk $source --out $Work\live.vrnx"
    Step 'a restore without --confirm is refused' 1 'Pass --confirm YES' `
        "restore --in $Work\live.vrnx --disk $target"
    Step 'a clone without --confirm is refused' 1 'Pass --confirm YES' `
        "clone --from $source --to $target"
    Step 'a restore onto a mounted disk is refused' 1 'exclusively for writing' `
        "restore --in $Work\live.vrnx --disk $target --confirm YES"
    Step 'a clone onto a mounted disk is refused' 1 'exclusively for writing' `
        "clone --from $source --to $target --confirm YES"
    # Only where the program itself marks the disk: it is refused there before anything is opened for writing.
    $marked = (& $Vornix list-disks) -match "^PhysicalDrive$systemDisk .*currently booted system disk"
    Add-Result 'the disk that Windows runs from is marked' ([bool]$marked) 'list-disks does not mark it'
    if ($marked -and -not $SkipSystemDisk) {
        Step $systemDiskTrial 1 'currently running from' `
            "restore --in $Work\live.vrnx --disk $systemDisk --confirm YES"
    }

    # A quiet disk: what is restored is what was captured, byte for byte.
    $firstFiles = Get-Files $sourceLetter
    Set-OwnDiskOffline $sourceFile $true
    Set-OwnDiskOffline $targetFile $true
    Step 'a disk that is offline is captured' 0 'Capture complete' `
        "capture --disk $source --out $Work\full.vrnx"
    Step 'its image is good' 0 'Verify OK' `
        "verify --in $Work\full.vrnx"
    Step 'the image is restored' 0 'Restore complete' `
        "restore --in $Work\full.vrnx --disk $target --confirm YES"
    Step 'the restored disk is captured' 0 'Capture complete' `
        "capture --disk $target --out $Work\restored.vrnx"
    Test-Same 'both disks give the same image' "$Work\full.vrnx" "$Work\restored.vrnx"

    # Sealed.
    Step 'a disk is captured into a sealed image' 0 'Capture complete' `
        "capture --disk $source --out $Work\sealed.vrnx --encrypt --password-file $Work\password.txt"
    Step 'the sealed image is good' 0 'Verify OK' `
        "verify --in $Work\sealed.vrnx --password-file $Work\password.txt"
    Step 'another password does not open it' 1 'AUTHENTICATION FAILED' `
        "verify --in $Work\sealed.vrnx --password-file $Work\other.txt"
    Step 'no password does not open it' 1 'password' `
        "verify --in $Work\sealed.vrnx"

    # A chain.
    Set-OwnDiskOffline $sourceFile $false
    Start-Sleep -Seconds 5
    Add-Files $sourceLetter 'second' 3
    $secondFiles = Get-Files $sourceLetter
    Set-OwnDiskOffline $sourceFile $true
    Step 'what changed is captured' 0 'Capture complete (thin)' `
        "capture --disk $source --base $Work\full.vrnx --thin --out $Work\thin.vrnx"
    Step 'the thin image is good' 0 'Verify OK' `
        "verify --in $Work\thin.vrnx"
    Step 'the chain is folded into one image' 0 'Verify OK' `
        "consolidate --in $Work\thin.vrnx --out $Work\folded.vrnx"
    Step 'the changed disk is captured whole' 0 'Capture complete' `
        "capture --disk $source --out $Work\changed.vrnx"
    Test-Same 'the folded image is the image of the disk' "$Work\folded.vrnx" "$Work\changed.vrnx"
    Step 'the thin image is restored' 0 'Restore complete' `
        "restore --in $Work\thin.vrnx --disk $target --confirm YES"
    Step 'the disk restored from the chain is captured' 0 'Capture complete' `
        "capture --disk $target --out $Work\again.vrnx"
    Test-Same 'it is the changed disk' "$Work\changed.vrnx" "$Work\again.vrnx"

    # Damage.
    Copy-Item -LiteralPath "$Work\full.vrnx" -Destination "$Work\broken.vrnx"
    Break-File "$Work\broken.vrnx"
    Step 'one inverted bit is found' 1 'Verify FAILED - 1 of' `
        "verify --in $Work\broken.vrnx"
    Step 'a broken chunk is not restored' 1 'hash mismatch (corrupt image)' `
        "restore --in $Work\broken.vrnx --disk $target --confirm YES"

    # Disk to disk; then Windows itself reads the copy, alone, because two disks with one signature are one too many.
    Step 'the disk is cloned and compared' 0 'Verify OK' `
        "clone --from $source --to $target --confirm YES --verify"
    Step 'the clone is captured' 0 'Capture complete' `
        "capture --disk $target --out $Work\clone.vrnx"
    Test-Same 'the clone is the disk' "$Work\changed.vrnx" "$Work\clone.vrnx"
    Invoke-DiskPart @("select vdisk file=`"$sourceFile`"", 'detach vdisk')
    Set-OwnDiskOffline $targetFile $false
    Start-Sleep -Seconds 5
    $partition = Get-Partition -DiskNumber (Get-OwnNumber $targetFile) | Where-Object { $_.Size -gt 100MB }
    if (-not ([int][char]$partition.DriveLetter)) {
        $partition | Set-Partition -NewDriveLetter $targetLetter
        $partition = Get-Partition -DiskNumber (Get-OwnNumber $targetFile) | Where-Object { $_.Size -gt 100MB }
    }
    $copied = Get-Files $partition.DriveLetter
    Add-Result 'Windows reads the same files from the clone' ($copied -eq $secondFiles) "it reads`n$copied"
    Add-Result 'the change was one' ($firstFiles -ne $secondFiles) 'the files before and after it are the same'
} catch {
    Add-Result 'the script itself' $false "$_ $($_.ScriptStackTrace)"
} finally {
    foreach ($file in @($sourceFile, $targetFile)) {
        if (Test-Path -LiteralPath $file) {
            try { Dismount-DiskImage -ImagePath $file | Out-Null } catch { Write-Host "$file stays attached: $_" }
        }
    }
    try { Remove-Item -LiteralPath $Work -Recurse -Force } catch { Write-Host "$Work stays: $_" }
}

Write-Host ''
Write-Host "$passed passed, $failed failed"
if ($failed -gt 0) { exit 1 }
exit 0
