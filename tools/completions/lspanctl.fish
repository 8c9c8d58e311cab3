# fish completion of lspanctl
function __lspanctl_offered
    set -l offered (lspanctl completion --of (commandline -cp | string collect) 2>/dev/null)
    if test "$offered" = '<file>'
        __fish_complete_path (commandline -ct)
    else
        printf '%s\n' $offered
    end
end
complete -c lspanctl -f -a '(__lspanctl_offered)'
