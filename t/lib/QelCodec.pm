package QelCodec;

# Helpers of the codec tests (t/65 to t/69, t/91): exact error checks, wire
# bytes built by hand for malformed and non-canonical input, the runtime's
# standard-error lines captured around a call, and records of every shape.

use strict;
use warnings;

use Exporter 'import';
use Test::More ();
use QelTest qw(varint);

our @EXPORT_OK = qw(dies_with lives tag vi ld fx32 fx64 grp stderr_of utf8_report runtime_lines
                    typical_record);
our %EXPORT_TAGS = (all => \@EXPORT_OK);

# dies_with { ... } $text, $name: the block dies with exactly $text followed
# by " at FILE line N.\n", FILE being the test file that calls.
sub dies_with (&$;$) {
    my ($code, $text, $name) = @_;
    my (undef, $file) = caller;
    my $err = do { local $@; eval { $code->(); 1 } ? undef : $@ };
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    return Test::More::like($err, qr/^\Q$text\E at \Q$file\E line \d+\.\n\z/, $name // $text);
}

# lives { ... } $name: the block does not die (the error is shown if it does).
sub lives (&;$) {
    my ($code, $name) = @_;
    my $err = do { local $@; eval { $code->(); 1 } ? undef : $@ };
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    return Test::More::is($err, undef, $name);
}

# Wire pieces: a tag, a varint field, a length-delimited field, fixed32 and
# fixed64 fields, a group around some bytes.
sub tag  { varint(($_[0] << 3) | $_[1]) }
sub vi   { tag($_[0], 0) . varint($_[1]) }
sub ld   { tag($_[0], 2) . varint(length $_[1]) . $_[1] }
sub fx32 { tag($_[0], 5) . pack('V', $_[1]) }
sub fx64 { tag($_[0], 1) . pack('Q<', $_[1]) }
sub grp  { tag($_[0], 3) . $_[1] . tag($_[0], 4) }

# stderr_of { ... }: what the block wrote to file descriptor 2 (the
# runtime's log goes there), and its exception if it died.
sub stderr_of (&) {
    my $code = shift;
    require File::Temp;
    my $tmp = File::Temp->new;
    open my $saved, '>&', \*STDERR or die "dup STDERR: $!";
    open STDERR, '>', $tmp->filename or die "reopen STDERR: $!";
    my $err = do { local $@; eval { $code->(); 1 } ? undef : $@ };
    open STDERR, '>&', $saved or die "restore STDERR: $!";
    open my $in, '<', $tmp->filename or die "read back: $!";
    my $text = do { local $/; <$in> };
    return wantarray ? ($text // '', $err) : $text // '';
}

# utf8_report($field, $op): the runtime's text for invalid UTF-8 in the string
# field $field, $op 'parsing' or 'serializing'.
sub utf8_report {
    my ($field, $op) = @_;
    return "String field 'quillon_event_log.QuillonEventLog.$field' contains invalid UTF-8 data when $op "
         . "a protocol buffer. Use the 'bytes' type if you intend to send raw bytes.";
}

# runtime_lines($stderr): the runtime's messages in captured standard error,
# the "[libprotobuf ERROR file:line] " prefix and trailing blanks removed.
sub runtime_lines {
    my $text = shift;
    return map { s/^\[libprotobuf \w+ [^\]]*\] //r =~ s/\s+\z//r } grep { /\S/ } split /\n/, $text;
}

# typical_record(): a record of many fields of every family.
sub typical_record {
    return {
        bot_name => 'curl', profile_name => 'strict', request_uri => '/a?b=c',
        http_request => "GET / HTTP/1.1\r\nHost: x\r\n\r\n",
        client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 3405803821, rtdom_id => 0 },
        dest_ip => { ip3 => 167772165 },
        src_port => 51234, dest_port => 443, device_id => '1234567890123',
        session_id => '18446744073709551615', mobile_is_app => 0, is_https_request => 1,
        request_time => 1795000000, anomaly_categories => ['Automation Tool'],
        anomalies => ['a', '', 'c'], host => 'shop.example.com',
    };
}

1;
