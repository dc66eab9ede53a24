# Reads the lines of the watch folder service and prints those that somebody has to act on, each with
# its entry and watch folder:
#
#   journalctl -u vel4_watch_folder_service -o cat | awk -f log-filter.awk
#
# A fault that returns check after check is printed once, until a check goes without it. With
# -v waiting=10 a file that was not moved because it or its target is in use is printed after ten
# checks in a row.

function report(count_from) {
    key = entry $0
    row[key] = key in row && last[key] >= check - 1 ? row[key] + 1 : 1
    last[key] = check
    if (entry == "" || row[key] == count_from) {
        print (entry == "" ? "" : entry ": ") $0
        fflush()
    }
}

/^Checking\.\.\. / { ++check }
/^(Checking\.\.\. |watching |Reloading config)/ { entry = "" }
/^Checking '/ { entry = substr($0, 10) }

/^(Cannot |Path\(s\) |Not possible |Check not |BUG: |\* (cannot|scan not) |Metadir fail|Target meta (save|load) fail$)/ {
    report(1)
}
/ not acting$/ && waiting > 0 { report(waiting) }

# What belongs to no entry.
/^(Warning: |Error in |Failed to |Nothing to |No configuration|Unable to |This service is)/ ||
    /: did not return anything$/ || /^\/[^ ]*\.toml: / {
    entry = ""
    report(1)
}
