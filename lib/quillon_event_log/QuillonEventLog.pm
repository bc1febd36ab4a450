package quillon_event_log::QuillonEventLog;

use strict;
use warnings;

our $VERSION = '1.0';

require XSLoader;
XSLoader::load('quillon_event_log::QuillonEventLog', $VERSION);

1;
__END__
