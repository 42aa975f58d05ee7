# The daily backup of one disk of Windows: makes an image over the newest good one, proves it, and says how it went.
#
#   powershell.exe -NoProfile -ExecutionPolicy Bypass -File C:\tools\vornix-backup.ps1
#
# A chain begins with a full image and goes on with thin ones, each over the one before it, until it is old or long
# enough; then a new chain begins. An image counts as good when it was verified after it had left the cache; what fails,
# and what a run that was cut short left behind, goes into the folder "quarantine". Nothing is ever deleted but whole
# chains that are older than the newest $KeepChains good ones, and those only when $KeepChains is set.
#
# Exit status: 0 backed up, 1 wrong configuration, 2 the place for the images is not as expected, 3 the disk is not the
# expected one, 4 the capture failed or something unforeseen happened, 5 an image failed verification, 6 the snapshot
# fell back to reading live, 7 another run is at work, 8 backed up, but the deletion of old chains, the metrics or the
# hook failed.
#
# This script has not been run yet: there was no Windows and no PowerShell where it was written. Its lines with vornix
# and vrnx run in the tests, the rest does not. Try it on a disk that you can lose. docs/routine-windows.md says how.

# --- Configuration ----------------------------------------------------------------------------------------------------

$Name         = 'backup'     # what names of images begin with: letters, digits and _ ; one name for one disk
$Folder       = 'E:\images'  # where the images go
$VolumeLabel  = ''           # the label that the volume under $Folder has to have; '' does not look
$Disk         = 1            # the disk's number (vornix list-disks)
$DiskSize     = 0            # its size in bytes (Get-Disk)
$DiskSerial   = ''           # its serial number (Get-Disk); '' does not look
$PasswordFile = ''           # seals the images; '' makes plain images
$Snapshot     = $true        # capture with --vss
$AllowLive    = $false       # $true: an image whose snapshot fell back to reading live is good enough
$ChainDays    = 7            # a chain that began so many days ago is continued by a new one
$ChainLength  = 14           # images in a chain at most; no more than 65
$KeepChains   = 0            # 0: delete nothing; else how many good chains to keep
$Log          = 'C:\ProgramData\vornix-backup.log'
$Metrics      = ''           # a file for the textfile collector of a Prometheus exporter; '' is none
$Hook         = ''           # a program that is run at the end with the exit status and the line of the log; '' is none
$Vornix       = 'C:\tools\vornix.exe'
$Vrnx         = 'C:\tools\vrnx.exe'

# --- The end of a run -------------------------------------------------------------------------------------------------

Set-StrictMode -Version 2
$ErrorActionPreference = 'Stop'
$began = [DateTime]::UtcNow
$imageBytes = 0
$trouble = ''
$deleted = ''
$leftBehind = ''
$failed = ''  # what went wrong before the present step, for the case that the step fails as well
$invariant = [Globalization.CultureInfo]::InvariantCulture  # other cultures count other years, and put dots for colons

function Get-UnixTime([DateTime]$moment) {
    [int64]($moment - [DateTime]'1970-01-01').TotalSeconds
}

function Write-Metrics([int]$status, [DateTime]$now) {
    $label = "{name=`"$Name`"}"
    $success = 0
    if ($status -eq 0 -or $status -eq 8) {
        $success = Get-UnixTime $now
    } elseif (Test-Path -LiteralPath $Metrics) {
        $found = Select-String -LiteralPath $Metrics -SimpleMatch "vornix_backup_last_success_timestamp_seconds$label "
        foreach ($each in $found) { $success = ($each.Line -split ' ')[1] }
    }
    $text = @(
        "vornix_backup_status$label $status"
        "vornix_backup_last_run_timestamp_seconds$label $(Get-UnixTime $now)"
        "vornix_backup_last_success_timestamp_seconds$label $success"
        "vornix_backup_duration_seconds$label $([int]($now - $began).TotalSeconds)"
        "vornix_backup_image_bytes$label $imageBytes"
    ) -join "`n"
    [IO.File]::WriteAllText("$Metrics.new", "$text`n")
    Move-Item -LiteralPath "$Metrics.new" -Destination $Metrics -Force
}

# Ends the run: the hook, the metrics, one line into the log.
function Stop-Run([int]$status, [string]$outcome) {
    $now = [DateTime]::UtcNow
    $stamp = $now.ToString('yyyy-MM-ddTHH:mm:ssZ', $invariant)
    if ($script:failed) { $outcome += "; before that, $script:failed" }
    if ($Hook) {
        $hookFailed = $true
        try {
            & $Hook $status "$stamp $Name status=$status $outcome" | Out-Null
            $hookFailed = $LASTEXITCODE -ne 0
        } catch { }
        if ($hookFailed) {
            if ($status -eq 0) { $status = 8 }
            $outcome += "; the hook failed: $Hook"
        }
    }
    if ($Metrics) {
        try { Write-Metrics $status $now } catch {
            if ($status -eq 0) { $status = 8 }
            $outcome += "; the metrics could not be written: $Metrics"
        }
    }
    try { Add-Content -LiteralPath $Log -Value "$stamp $Name status=$status $outcome" } catch {
        [Console]::Error.WriteLine("vornix-backup: cannot write $Log")
    }
    if ($status -ne 0) { [Console]::Error.WriteLine("vornix-backup: $outcome") }
    exit $status
}

# What cannot be foreseen ends the run like the rest: with a line in the log, and never as a success.
trap { Stop-Run 4 "ended unexpectedly: $_" }

# Runs a program: sets $code, $output, its lines of both streams, and $errors, those of standard error.
function Invoke-Program([string]$program, [string[]]$arguments) {
    $ErrorActionPreference = 'Continue'  # what a program says on standard error is no error of this script
    $lines = @(& $program @arguments 2>&1)
    $script:code = $LASTEXITCODE
    $script:output = @($lines | ForEach-Object { "$_" -split "`r" })
    $script:errors = @($lines | Where-Object { $_ -is [Management.Automation.ErrorRecord] } | ForEach-Object { "$_" })
}

# What ended the program. Of both streams the last line may be the meter, since standard output comes late.
function Get-LastError {
    "$($script:errors | Where-Object { $_.Trim() } | Select-Object -Last 1)".Trim()
}

# --- What has to be true before anything is written -------------------------------------------------------------------

function Test-Configuration {
    if ($Name -notmatch '^[A-Za-z0-9_]+$') { Stop-Run 1 '$Name has to be letters, digits and _' }
    if ($DiskSize -le 0) { Stop-Run 1 '$DiskSize has to be the size of the disk in bytes' }
    if ($ChainLength -lt 1 -or $ChainLength -gt 65) { Stop-Run 1 '$ChainLength has to be 1 to 65' }
    if ($PasswordFile -and -not (Test-Path -LiteralPath $PasswordFile)) {
        Stop-Run 1 "the password file is missing: $PasswordFile"
    }
    if (-not (Test-Path -LiteralPath $Vornix)) { Stop-Run 1 "there is no $Vornix" }
    try { [IO.File]::AppendAllText($Log, '') } catch { Stop-Run 1 "cannot write $Log" }
}

# The drive or share may go away in the middle of a run: then an image that cannot be read is not a bad one, and nothing
# is written for it.
function Test-Place {
    if (-not (Test-Path -LiteralPath $Folder -PathType Container)) { Stop-Run 2 "there is no folder $Folder" }
    if ($VolumeLabel -and (Get-Volume -FilePath $Folder).FileSystemLabel -ne $VolumeLabel) {
        Stop-Run 2 "the volume of $Folder is not $VolumeLabel"
    }
}

function Test-Disk {
    $found = Get-Disk -Number $Disk -ErrorAction SilentlyContinue
    if (-not $found) { Stop-Run 3 "there is no disk $Disk" }
    if ($found.Size -ne $DiskSize) {
        Stop-Run 3 "disk $Disk has $($found.Size) bytes, not the $DiskSize of the disk to back up"
    }
    if ($DiskSerial -and "$($found.SerialNumber)".Trim() -ne $DiskSerial) {
        Stop-Run 3 "disk $Disk has another serial number than $DiskSerial"
    }
}

# --- Images and chains ------------------------------------------------------------------------------------------------
#
# NAME-20261122T013000Z-000.vrnx is a full image; the images of the chain that it begins are
# NAME-20261122T013000Z-001.vrnx and on. Beside an image lies IMAGE.verified, with the time of its proof, once it is
# proved. A chain that shall not be continued has a file NAME-20261122T013000Z.closed that says why.

# What a function gives is no list where it is one thing or none: whoever wants a list of one of the next three puts
# @( ) round its call.

function Get-Images([string]$pattern) {
    Get-ChildItem -LiteralPath $Folder -File | Where-Object { $_.Name -match "^$pattern`$" } |
        ForEach-Object { $_.Name } | Sort-Object
}

function Get-Chains {
    Get-Images "$Name-[0-9]{8}T[0-9]{6}Z-[0-9]{3}\.vrnx" | ForEach-Object { $_ -replace '-[0-9]{3}\.vrnx$' } |
        Select-Object -Unique
}

function Get-ImagesOfChain([string]$chain) {
    Get-Images "$chain-[0-9]{3}\.vrnx"
}

function Move-ToQuarantine([string]$file) {
    Test-Place
    [void][IO.Directory]::CreateDirectory("$Folder\quarantine")  # or finds it
    $target = "$Folder\quarantine\$file"
    if (Test-Path -LiteralPath $target) { $target += '.' + [DateTime]::UtcNow.ToString('yyyyMMddTHHmmssZ', $invariant) }
    Move-Item -LiteralPath "$Folder\$file" -Destination $target
}

function Close-Chain([string]$chain, [string]$why) {
    Test-Place
    Set-Content -LiteralPath "$Folder\$chain.closed" -Value $why
}

# Sends the new image to its disk, and takes it and those below it out of the cache, which opening a file without
# buffering does, so that what is read next is read from the disk.
function Clear-Cache([string]$chain, [string]$new) {
    $open, $read, $shared = [IO.FileMode]::Open, [IO.FileAccess]::Read, [IO.FileShare]::Read
    $stream = New-Object IO.FileStream("$Folder\$new", $open, [IO.FileAccess]::ReadWrite, [IO.FileShare]::None)
    $stream.Flush($true)
    $stream.Dispose()
    $unbuffered = [Enum]::ToObject([IO.FileOptions], 0x20000000)  # has no name, so that a cast would refuse it
    foreach ($each in @(Get-ImagesOfChain $chain)) {
        (New-Object IO.FileStream("$Folder\$each", $open, $read, $shared, 4096, $unbuffered)).Dispose()
    }
}

# Makes an image good or takes it out of the way; whether it is good.
function Confirm-Image([string]$chain, [string]$file) {
    Clear-Cache $chain $file
    $verify = @('verify', '--in', "$Folder\$file")
    if ($PasswordFile) { $verify += '--password-file', $PasswordFile }
    Invoke-Program $Vornix $verify
    if ($script:code -eq 0) {
        Set-Content -LiteralPath "$Folder\$file.verified" -Value ([DateTime]::UtcNow.ToString('s', $invariant) + 'Z')
        return $true
    }
    $script:why = Get-LastError
    $script:failed = "$file failed verification: $script:why"
    Move-ToQuarantine $file
    # What failed may just as well be an image below it: nothing is built on this chain any more.
    Close-Chain $chain $script:failed
    $script:failed = ''
    return $false
}

# What a run that was cut short left: unfinished images, and one that was never proved.
function Repair-Folder {
    foreach ($each in @(Get-Images "$Name-[0-9]{8}T[0-9]{6}Z-[0-9]{3}\.vrnx\.partial")) { Move-ToQuarantine $each }
    foreach ($chain in @(Get-Chains)) {
        foreach ($each in @(Get-ImagesOfChain $chain)) {
            if ((Test-Path -LiteralPath "$Folder\$each.verified") -or (Confirm-Image $chain $each)) { continue }
            $script:leftBehind = "; $each of an earlier run failed verification: $script:why; moved to quarantine"
        }
    }
}

# What vrnx says of the images in the folder. Where it says nothing, $noLook tells why.
function Get-Listing {
    $script:noLook = 'that needs vrnx'
    if (-not (Test-Path -LiteralPath $Vrnx)) { return }
    $script:noLook = 'vrnx cannot look into the folder'
    $ErrorActionPreference = 'Continue'
    $list = @('list', $Folder, '--json')
    $text = & $Vrnx @list 2> $null
    if ($LASTEXITCODE -ne 0 -and $LASTEXITCODE -ne 1) { return }
    $listing = ($text -join "`n") | ConvertFrom-Json
    if ($listing.schema_version -eq 1) { $listing }
}

function Test-Complete($listing, [string]$file) {
    @($listing.images | Where-Object { $_.path -eq $file -and $_.state -eq 'complete' }).Count -gt 0
}

# Chooses what the new image is: sets $chain, $image and $base; $base is empty for a full one. A chain from a day on
# which the clock was ahead is passed over, until the clock has come to it; or else every day up to then would begin a
# chain of its own.
function Select-Base {
    $now = [DateTime]::UtcNow
    $limit = "$Name-" + $now.ToString('yyyyMMddTHHmmssZ', $invariant)
    $script:base = ''
    $script:chain = ''
    foreach ($each in @(Get-Chains)) { if ([string]::CompareOrdinal($each, $limit) -le 0) { $script:chain = $each } }
    if ($script:chain) {
        $images = @(Get-ImagesOfChain $script:chain)
        $last = $images[-1]
        $number = [int]($last -replace '^.*-([0-9]{3})\.vrnx$', '$1')
        $start = [DateTime]::ParseExact($script:chain.Substring($Name.Length + 1, 8), 'yyyyMMdd', $invariant)
        $age = ($now.Date - $start).Days
        $closed = Test-Path -LiteralPath "$Folder\$script:chain.closed"
        if (-not $closed -and $age -lt $ChainDays -and $number + 1 -lt $ChainLength) {
            $listing = Get-Listing
            if ($images.Count -ne $number + 1) {
                Close-Chain $script:chain 'an image of the chain is missing'
            } elseif ($listing -and -not (Test-Complete $listing $last)) {
                Close-Chain $script:chain "$last is not complete"
            } else {
                $script:base = $last
            }
        }
    }
    if ($script:base) {
        $script:image = '{0}-{1:d3}.vrnx' -f $script:chain, ($number + 1)
    } else {
        $script:chain = $limit
        $script:image = "$script:chain-000.vrnx"
    }
    foreach ($each in $script:image, "$script:image.partial") {
        if (Test-Path -LiteralPath "$Folder\$each") { Stop-Run 2 "there is $each already" }
    }
    # Of an image of that name that was deleted by hand.
    $proof = "$Folder\$script:image.verified"
    if (Test-Path -LiteralPath $proof) { Remove-Item -LiteralPath $proof }
}

# --- The backup -------------------------------------------------------------------------------------------------------

function New-Image {
    $capture = @('capture', '--disk', "$Disk", '--out', "$Folder\$image")
    if ($base) { $capture += '--base', "$Folder\$base", '--thin' }
    if ($PasswordFile) { $capture += '--encrypt', '--password-file', $PasswordFile }
    if ($Snapshot) { $capture += '--vss' }
    Invoke-Program $Vornix $capture
    if ($script:code -eq 0) { return }
    $why = Get-LastError
    $script:failed = "the capture of disk $Disk failed with status $($script:code): $why"
    Test-Place
    if (Test-Path -LiteralPath "$Folder\$image.partial") {
        Move-ToQuarantine "$image.partial"
    } elseif ($base) {
        # It did not come as far as writing: the base was refused, and would be again tomorrow.
        Close-Chain $chain "no capture over ${base}: $why"
    }
    $outcome = $script:failed
    $script:failed = ''
    Stop-Run 4 $outcome
}

# A volume of which there never are snapshots (an EFI partition) is read live in every run, and is no fall-back.
function Test-Snapshot {
    if (-not $Snapshot -or $AllowLive) { return }
    $live = @($script:output | Where-Object {
        $_ -match ('^ *--vss: (.* - reading live instead \(crash-consistent only\)\.|' +
            '.* - read live\.|0 volume\(s\) snapshotted)')
    })
    if ($live.Count -eq 0) { return }
    $script:failed = "the image was read live: $($live[0].Trim())"
    Move-ToQuarantine $image
    $outcome = $script:failed
    $script:failed = ''
    Stop-Run 6 "$outcome; moved to quarantine"
}

function Remove-OldChains {
    if ($KeepChains -le 0) { return }
    $listing = Get-Listing
    if (-not $listing) {
        $script:trouble = "; old chains were not looked at: $script:noLook"
        return
    }
    # Names tell which chain is older as long as the clock goes forward. The one of today has to be the newest.
    $chains = @(Get-Chains)
    [array]::Reverse($chains)
    if ($chains[0] -ne $script:chain) {
        $script:trouble = "; nothing was deleted: by the clock $($chains[0]) lies in the future, " +
            'so the clock is wrong, or was then'
        return
    }
    $good = 0
    foreach ($chain in $chains) {
        $images = @(Get-ImagesOfChain $chain)
        if ($good -lt $KeepChains) {
            $bad = @($images | Where-Object {
                -not (Test-Path -LiteralPath "$Folder\$_.verified") -or -not (Test-Complete $listing $_)
            })
            if ($bad.Count -eq 0 -and -not (Test-Path -LiteralPath "$Folder\$chain.closed")) { $good++ }
            continue
        }
        $needed = @($listing.images | Where-Object { $images -contains $_.path } | ForEach-Object { $_.needed_by } |
            Where-Object { $_ -and $images -notcontains $_ })
        if ($needed.Count -gt 0) {
            $script:trouble = "; $chain was kept: another image needs it"
            continue
        }
        # The last image first, so that what a cut leaves is a chain that is shorter.
        [array]::Reverse($images)
        foreach ($each in $images) {
            Remove-Item -LiteralPath "$Folder\$each"
            if (Test-Path -LiteralPath "$Folder\$each.verified") { Remove-Item -LiteralPath "$Folder\$each.verified" }
        }
        if (Test-Path -LiteralPath "$Folder\$chain.closed") { Remove-Item -LiteralPath "$Folder\$chain.closed" }
        $script:deleted += " $chain"
    }
}

Test-Configuration
$free = $false
try {
    $mutex = New-Object Threading.Mutex($false, "Global\vornix-backup-$Name")
    try { $free = $mutex.WaitOne(0) } catch [Threading.AbandonedMutexException] { $free = $true }
} catch [UnauthorizedAccessException] { }  # that of a run of another user
if (-not $free) { Stop-Run 7 "another run of $Name is at work" }
Test-Place
Test-Disk
Repair-Folder
Select-Base
New-Image
Test-Snapshot
if (-not (Confirm-Image $chain $image)) { Stop-Run 5 "$image failed verification: $why; moved to quarantine" }
$imageBytes = (Get-Item -LiteralPath "$Folder\$image").Length
try { Remove-OldChains } catch { $trouble += "; deleting old chains failed: $_" }

$status = 0
if ($trouble) { $status = 8 }
if ($leftBehind) { $status = 5 }
$kind = ''
if ($base) { $kind = 'thin ' }
$removed = ''
if ($deleted) { $removed = "; deleted$deleted" }
Stop-Run $status "$kind$image $imageBytes bytes$removed$trouble$leftBehind"
