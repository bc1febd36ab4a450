# Checks the POD syntax of the manuals: the modules' and the qel tool's.  Skipped when Test::Pod is not
# installed (Debian package libtest-pod-perl).
use strict;
use warnings;
use Test::More;

eval { require Test::Pod; Test::Pod->VERSION(1.22); 1 }
    or plan skip_all => 'Test::Pod 1.22 is not installed';

Test::Pod::pod_file_ok("lib/quillon_event_log/$_.pm", "$_.pm: POD syntax")
    for qw(QuillonEventLog IPAddr Codec RuntimeLog Stream Report Report/Html Sample);
Test::Pod::pod_file_ok('bin/qel', 'bin/qel: POD syntax');

done_testing;
