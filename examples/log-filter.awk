# Reads the journal of the watch folder service and prints the lines that somebody has to act on, each
# with its time, its entry and its watch folder:
#
#   journalctl -u vel4_watch_folder_service --since -1day | awk -f log-filter.awk
#
# A fault that returns check after check is printed once, until a check goes without it. With
# -v waiting=10 a file that was not moved because it or its target is in use is printed after ten
# checks in a row.

function report(place, count_from) {
    key = place $0
    row[key] = key in row && last[key] >= check - 1 ? row[key] + 1 : 1
    last[key] = check
    if (row[key] == count_from) {
        print time " " place $0
        fflush()
    }
}

# Before the message stand the time and "host ident[pid]: ". Other lines are journalctl's own.
!match($0, / [^ ]+ [^ ]+\[[0-9]+\]: /) { next }
{
    time = substr($0, 1, RSTART - 1)
    $0 = substr($0, RSTART + RLENGTH)
}

/^Checking\.\.\. / { ++check; entry = "" }
/^Checking '/ { entry = substr($0, 10) ": " }

/^(Cannot |Path\(s\) |Not possible |Check not |BUG: |\* cannot |Metadir fail|Target meta (save|load) fail$)/ {
    report(entry, 1)
}
/ not acting$/ && waiting > 0 { report(entry, waiting) }

# What belongs to no entry: the start, a reload, the check program on a reload, systemd.
/^(Warning: |Error: |Error in |Failed to |Reload failed |Nothing to |No configuration|Unable to |This service is)/ ||
    /: did not return anything$/ || /^\/[^ ]*\.toml: / ||
    /^[^ ]+\.service: (Failed with result|.*code=(killed|dumped))/ {
    report("", 1)
}

END {
    if (!check)
        print "No check began: is the service active, the main storage mounted?"
}
