# Completes kestrune's commands, options and paths in fish.

# Whether a command is chosen already; and which.
function __kestrune_needs_command
    set -l words (commandline -opc)
    for word in $words[2..]
        string match -q -- '-*' $word; or return 1
    end
    return 0
end

function __kestrune_uses
    set -l words (commandline -opc)
    for word in $words[2..]
        if not string match -q -- '-*' $word
            contains -- $word $argv
            return
        end
    end
    return 1
end

# Paths of the store.
function __kestrune_remote
    command kestrune complete-path (string unescape -- (commandline -ct)) 2>/dev/null </dev/null
end

complete -c kestrune -f
complete -c kestrune -n __kestrune_needs_command -l version -d 'Print the version'
complete -c kestrune -s h -l help -d 'Print a short help'
complete -c kestrune -n __kestrune_needs_command -a configure -d 'Write the address of the service and the token'
complete -c kestrune -n __kestrune_needs_command -a invalidate -d 'Have all folders listed again when their changes are asked for'
complete -c kestrune -n __kestrune_needs_command -a mount -d 'Show the store as a folder, until Ctrl-C'
complete -c kestrune -n __kestrune_needs_command -a ls -d 'List a folder of the store, without a mount'
complete -c kestrune -n __kestrune_needs_command -a cat -d 'Print a file of the store, without a mount'
complete -c kestrune -n __kestrune_needs_command -a console -d 'Make calls to the extension: JSON lines in, JSON lines out'
complete -c kestrune -n __kestrune_needs_command -a status -d 'Show how a mounted folder is doing'
complete -c kestrune -n __kestrune_needs_command -a pending -d 'Show what was changed here and is not at the store yet'
complete -c kestrune -n __kestrune_needs_command -a sync -d 'Send what was changed here now, whatever failed before'
complete -c kestrune -n __kestrune_needs_command -a pin -d 'Keep items on this machine'
complete -c kestrune -n __kestrune_needs_command -a unpin -d 'No longer keep items on this machine'
complete -c kestrune -n __kestrune_needs_command -a evict -d 'Remove contents from this machine, not items'
complete -c kestrune -n __kestrune_needs_command -a download -d 'Fetch contents now'
complete -c kestrune -n __kestrune_needs_command -a link -d 'Print links to items, for others'
complete -c kestrune -n __kestrune_needs_command -a state -d 'Show what of items is on this machine'
complete -c kestrune -n __kestrune_needs_command -a why -d 'Explain why items are on this machine or not, and what they wait for'
complete -c kestrune -n __kestrune_needs_command -a allow-deletions -d 'Carry out the deletions that the host holds back'
complete -c kestrune -n __kestrune_needs_command -a keep-deleted -d 'Keep what the host has not deleted yet, and send it to the store again'
complete -c kestrune -n __kestrune_needs_command -a restart -d 'Replace a running mount\'s program by the one that is installed now'
complete -c kestrune -n __kestrune_needs_command -a unmount -d 'End a running mount; nothing is lost by that'
complete -c kestrune -n __kestrune_needs_command -a doctor -d 'Check everything that mounts stand on, and say what to do'
complete -c kestrune -n __kestrune_needs_command -a report -d 'Write what helps to find a fault into a file, without names or the token'
complete -c kestrune -n '__kestrune_uses configure' -l url -x -d 'the service\'s address, as in https://files.example.org; default: asks'
complete -c kestrune -n '__kestrune_uses configure' -l token-file -r -F -d 'the file that holds the token, - for standard input; default: asks'
complete -c kestrune -n '__kestrune_uses configure' -l no-check -d 'write it without asking the service first'
complete -c kestrune -n '__kestrune_uses configure' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses invalidate' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses mount' -l replica -x -a '(__fish_complete_directories)' -d 'where fetched contents are kept; default: below the shared directory'
complete -c kestrune -n '__kestrune_uses mount' -l domain -x -d 'the domain\'s identifier'
complete -c kestrune -n '__kestrune_uses mount' -l refresh -x -d 'seconds between looks for changes, where the service does not tell of them'
complete -c kestrune -n '__kestrune_uses mount' -l cache-size -x -d 'how much fetched contents may take here, in bytes or with K, M, G; default: no limit'
complete -c kestrune -n '__kestrune_uses mount' -l keep-free -x -d 'how much of the disk is to stay free; default: a twentieth, 10G at most'
complete -c kestrune -n '__kestrune_uses mount' -l in-one-process -d 'run the extension within the host, without a sandbox (to look for faults)'
complete -c kestrune -n '__kestrune_uses mount' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses mount' -l allow-other -d 'let other users look inside (needs user_allow_other in /etc/fuse.conf)'
complete -c kestrune -n '__kestrune_uses ls' -s l -d 'also sizes and times'
complete -c kestrune -n '__kestrune_uses ls' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses console' -l domain -x -d 'the domain\'s identifier'
complete -c kestrune -n '__kestrune_uses console' -l show-private -d 'print the private arguments of log lines too'
complete -c kestrune -n '__kestrune_uses status' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses status' -l domain -x -d 'the domain, where there is no PATH'
complete -c kestrune -n '__kestrune_uses status' -s w -l watch -d 'until Ctrl-C, with transfers and what waits'
complete -c kestrune -n '__kestrune_uses pending' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses pending' -l domain -x -d 'the domain, where there is no PATH'
complete -c kestrune -n '__kestrune_uses pending' -l most -x -d 'how many changes are shown'
complete -c kestrune -n '__kestrune_uses sync' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses sync' -l wait -d 'until all of it is at the store'
complete -c kestrune -n '__kestrune_uses sync' -l timeout -x -d 'seconds to wait at most'
complete -c kestrune -n '__kestrune_uses pin' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses unpin' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses evict' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses download' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses link' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses state' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses why' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses allow-deletions' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses allow-deletions' -l domain -x -d 'the domain\'s identifier'
complete -c kestrune -n '__kestrune_uses keep-deleted' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses keep-deleted' -l domain -x -d 'the domain\'s identifier'
complete -c kestrune -n '__kestrune_uses restart' -l domain -x -d 'the domain, where there is no PATH'
complete -c kestrune -n '__kestrune_uses restart' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses unmount' -l domain -x -d 'the domain, where there is no PATH'
complete -c kestrune -n '__kestrune_uses unmount' -l force -d 'also where changes are not at the store yet; they stay in the replica'
complete -c kestrune -n '__kestrune_uses unmount' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses doctor' -l domain -x -d 'the domain\'s identifier'
complete -c kestrune -n '__kestrune_uses doctor' -l replica -x -a '(__fish_complete_directories)' -d 'as it was given to mount'
complete -c kestrune -n '__kestrune_uses doctor' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses report' -l domain -x -d 'the domain, where there is no PATH'
complete -c kestrune -n '__kestrune_uses report' -l replica -x -a '(__fish_complete_directories)' -d 'as it was given to mount, where no host runs'
complete -c kestrune -n '__kestrune_uses report' -s o -l output -r -F -d 'the file; default: kestrune-report-TIME.tar.gz in this directory'
complete -c kestrune -n '__kestrune_uses report' -l with-names -d 'with names of files and the service\'s address, still without the token'
complete -c kestrune -n '__kestrune_uses report' -l print -d 'print a page for people, write no file'
complete -c kestrune -n '__kestrune_uses report' -l json -d 'for programs: JSON, one object a line'
complete -c kestrune -n '__kestrune_uses ls cat' -a '(__kestrune_remote)'
complete -c kestrune -n '__kestrune_uses mount' -a '(__fish_complete_directories)'
complete -c kestrune -n '__kestrune_uses status pending sync pin unpin evict download link state why restart unmount report' -F
