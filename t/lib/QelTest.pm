package QelTest;

# Shared helpers for the test suite of quillon_event_log::QuillonEventLog:
# hex dumps, record construction, a reader of the .proto at the top of the
# distribution, and a pure-Perl wire encoder of the hash form of a record that
# the tests use as an oracle for what `pack` must produce.

use strict;
use warnings;

use Exporter 'import';
use Cwd ();
use File::Basename ();

our @EXPORT = qw(hexs new_rec proto_fields encode_ref);
our @EXPORT_OK = qw(
    $CLASS $ADDR_CLASS
    field_table field_names proto_path proto_text
    unhex varint bytes_is run_perl
);
our %EXPORT_TAGS = (all => [@EXPORT, @EXPORT_OK]);

our $CLASS      = 'quillon_event_log::QuillonEventLog';
our $ADDR_CLASS = 'quillon_event_log::IPAddr';

# The record's fields as [name, number, kind], in field-number order.
# kind is one of: string uint32 uint64 bool address list.
# Kept here by hand on purpose: the oracle must not learn the layout from the
# module it checks. t/05_field_table.t compares it with the .proto and `fields`.
my @FIELDS = (
    [bot_name                               =>  1, 'string'],
    [profile_name                           =>  2, 'string'],
    [virtual_server_name                    =>  3, 'string'],
    [client_ip                              =>  4, 'address'],
    [dest_ip                                =>  5, 'address'],
    [request_uri                            =>  7, 'string'],
    [http_request                           =>  8, 'string'],
    [bot_signature                          =>  9, 'string'],
    [microservice_name                      => 10, 'string'],
    [microservice_matched_wildcard_url      => 11, 'string'],
    [configured_mitigation_action_reason    => 12, 'string'],
    [actual_mitigation_action_reason        => 13, 'string'],
    [actual_verification_action_reason      => 14, 'string'],
    [reason                                 => 15, 'string'],
    [mobile_app_display_name                => 16, 'string'],
    [mobile_app_version                     => 17, 'string'],
    [mobile_imei                            => 18, 'string'],
    [src_port                               => 19, 'uint32'],
    [dest_port                              => 20, 'uint32'],
    [device_id                              => 21, 'uint64'],
    [session_id                             => 22, 'uint64'],
    [support_id                             => 23, 'uint64'],
    [previous_support_id                    => 24, 'uint64'],
    [mobile_is_app                          => 25, 'bool'],
    [mobile_is_human_behaviour              => 26, 'string'],
    [request_time                           => 27, 'uint32'],
    [previous_request_time                  => 28, 'uint32'],
    [http_method                            => 29, 'string'],
    [country_code                           => 30, 'string'],
    [classification                         => 32, 'string'],
    [bot_signature_category                 => 33, 'string'],
    [microservice_type                      => 34, 'string'],
    [captcha_status                         => 35, 'string'],
    [browser_verification_status            => 36, 'string'],
    [device_id_status                       => 37, 'string'],
    [device_id_action                       => 38, 'string'],
    [previous_initiated_action              => 39, 'string'],
    [previous_initiated_action_status       => 40, 'string'],
    [mobile_os_id                           => 41, 'string'],
    [mobile_app_emulation_mode              => 42, 'string'],
    [mobile_app_jailbroken_rooted           => 43, 'string'],
    [anomaly_categories                     => 44, 'list'],
    [anomalies                              => 45, 'list'],
    [configured_mitigation_action           => 46, 'string'],
    [actual_mitigation_action               => 47, 'string'],
    [browser_configured_verification_action => 48, 'string'],
    [browser_actual_verification_action     => 49, 'string'],
    [is_https_request                       => 50, 'bool'],
    [additional_signatures                  => 51, 'string'],
    [slot_number                            => 52, 'uint32'],
    [host                                   => 53, 'string'],
    [request_status                         => 54, 'string'],
    [microservice_matched_wildcard_host     => 55, 'string'],
    [enforced_by                            => 56, 'string'],
    [primary_anomaly_category               => 57, 'string'],
    [mobile_debugger_enabled_device         => 58, 'string'],
    [is_update_request                      => 59, 'bool'],
    [challenge_failure_reason               => 60, 'string'],
    [http_protocol_info                     => 61, 'string'],
);

my @ADDR_FIELDS = ([ip0 => 1], [ip1 => 2], [ip2 => 3], [ip3 => 4], [rtdom_id => 5]);

# Located once at load time, so a test that changes directory later still
# finds the schema.
my $ROOT = Cwd::abs_path(File::Basename::dirname(Cwd::abs_path(__FILE__)) . '/../..');

# field_table(): copies of [name, number, kind] for the 59 fields.
sub field_table { map { [@$_] } @FIELDS }

# field_names(): the 59 names in field-number order.
sub field_names { map { $_->[0] } @FIELDS }

# hexs($bytes): lower-case hex of a byte string.
sub hexs { unpack 'H*', $_[0] }

# unhex($hex): bytes from hex text; white space in the text is ignored.
sub unhex {
    (my $h = shift) =~ s/\s+//g;
    pack 'H*', $h;
}

# new_rec(%fields) or new_rec(\%fields): a new record built from the hash form.
sub new_rec {
    require quillon_event_log::QuillonEventLog;
    my $h = (@_ == 1 && ref $_[0] eq 'HASH') ? $_[0] : {@_};
    return $CLASS->new($h);
}

sub proto_path { "$ROOT/quillon_event_log.proto" }

# proto_text(): the schema with its comments removed.
sub proto_text {
    my $path = proto_path();
    open my $fh, '<', $path or die "cannot read $path: $!";
    local $/;
    my $text = <$fh>;
    close $fh;
    $text =~ s{/\*.*?\*/}{ }gs;
    $text =~ s{//[^\n]*}{}g;
    return $text;
}

# proto_fields([$message]): [name, number, label, type] for every field of the
# message (default QuillonEventLog), in declaration order. A message type is
# given without its package qualifier ("IPAddr" for ".quillon_event_log.IPAddr").
sub proto_fields {
    my $message = @_ ? shift : 'QuillonEventLog';
    my $text = proto_text();
    $text =~ /\bmessage\s+\Q$message\E\s*\{/g
        or die "message $message not found in " . proto_path() . "\n";
    my $start = pos $text;
    my ($depth, $i) = (1, $start);
    while ($depth && $i < length $text) {
        my $c = substr $text, $i++, 1;
        $depth++ if $c eq '{';
        $depth-- if $c eq '}';
    }
    die "message $message is not closed\n" if $depth;
    my $body = substr $text, $start, $i - 1 - $start;

    my @out;
    while ($body =~ /\b(optional|required|repeated)\s+([\w.]+)\s+(\w+)\s*=\s*(\d+)\s*(?:\[[^\]]*\])?\s*;/g) {
        my ($label, $type, $name, $number) = ($1, $2, $3, $4);
        $type =~ s/^\.//;
        $type =~ s/^quillon_event_log\.//;
        push @out, [$name, 0 + $number, $label, $type];
    }
    return @out;
}

# varint($n): base-128 encoding of an unsigned integer up to 2**64-1, given as
# a number or as a string of decimal digits. Long division on the decimal text
# keeps it exact whatever the width of Perl's integers.
sub varint {
    my $n = shift;
    die "varint: not an unsigned decimal number: '$n'\n" unless $n =~ /^[0-9]+$/;
    $n =~ s/^0+(?=.)//;
    my @groups;
    while (1) {
        my ($q, $r) = ('', 0);
        for my $d (split //, $n) {
            my $cur = $r * 10 + $d;
            $q .= int($cur / 128);
            $r = $cur % 128;
        }
        $q =~ s/^0+(?=.)//;
        push @groups, $r;
        last if $q eq '0';
        $n = $q;
    }
    $groups[$_] |= 0x80 for 0 .. $#groups - 1;
    return pack 'C*', @groups;
}

sub _tag { varint(($_[0] << 3) | $_[1]) }

sub _bytes_of {
    my $v = shift;
    $v = '' unless defined $v;
    $v = "$v";
    utf8::encode($v) if utf8::is_utf8($v);
    return $v;
}

sub _u32 {
    my $v = shift;
    no warnings qw(numeric uninitialized);
    return ($v + 0) & 0xffffffff;
}

sub _ld { my ($num, $payload) = @_; _tag($num, 2) . varint(length $payload) . $payload }

# encode_ref(\%hash): the wire encoding of a record given in its hash form
# (the form that to_hashref returns): keys are field names; strings are taken
# as bytes (a character string as its UTF-8 encoding); uint32 and bool values
# are numbers (a bool is true when its integer value is not zero); uint64
# values are decimal strings; client_ip and dest_ip are hashes with ip0..ip3
# and rtdom_id (any other value gives an empty address); anomaly_categories and
# anomalies are array references (holes are skipped, undef is ""). Unknown keys
# are ignored. Fields are written in field-number order.
sub encode_ref {
    my $h = shift;
    die "encode_ref: not a hash reference\n" unless ref $h eq 'HASH';
    my $out = '';
    for my $f (@FIELDS) {
        my ($name, $num, $kind) = @$f;
        next unless exists $h->{$name};
        my $v = $h->{$name};
        if ($kind eq 'string') {
            $out .= _ld($num, _bytes_of($v));
        }
        elsif ($kind eq 'uint32') {
            $out .= _tag($num, 0) . varint(_u32($v));
        }
        elsif ($kind eq 'uint64') {
            $out .= _tag($num, 0) . varint(defined $v ? $v : 0);
        }
        elsif ($kind eq 'bool') {
            no warnings qw(numeric uninitialized);
            $out .= _tag($num, 0) . (int($v) != 0 ? "\x01" : "\x00");
        }
        elsif ($kind eq 'address') {
            my $sub = '';
            if (ref $v eq 'HASH') {
                for my $a (@ADDR_FIELDS) {
                    next unless exists $v->{ $a->[0] };
                    $sub .= _tag($a->[1], 0) . varint(_u32($v->{ $a->[0] }));
                }
            }
            $out .= _ld($num, $sub);
        }
        elsif ($kind eq 'list') {
            next unless ref $v eq 'ARRAY';
            for my $i (0 .. $#$v) {
                next unless exists $v->[$i];
                $out .= _ld($num, _bytes_of($v->[$i]));
            }
        }
    }
    return $out;
}

# bytes_is($got, $expected, $name): byte-string equality that, on failure,
# reports the lengths and the first differing offset instead of dumping
# megabytes of data.
sub bytes_is {
    my ($got, $exp, $name) = @_;
    require Test::More;
    my $tb = Test::More->builder;
    my $ok = defined $got && defined $exp && $got eq $exp;
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    $tb->ok($ok, $name);
    unless ($ok) {
        if (!defined $got || !defined $exp) {
            $tb->diag(sprintf "got %s, expected %s",
                defined $got ? 'a string' : 'undef', defined $exp ? 'a string' : 'undef');
        }
        else {
            my $i = 0;
            my $max = length $got < length $exp ? length $got : length $exp;
            $i++ while $i < $max && substr($got, $i, 1) eq substr($exp, $i, 1);
            my $from = $i > 8 ? $i - 8 : 0;
            $tb->diag(sprintf "lengths %d (got) and %d (expected); first difference at offset %d\n"
                . "  got      ...%s\n  expected ...%s",
                length $got, length $exp, $i,
                hexs(substr $got, $from, 24), hexs(substr $exp, $from, 24));
        }
    }
    return $ok;
}

# run_perl($code): runs $code in a new perl with this process's @INC and
# returns ($status, $output): $? of the child and its standard output and
# standard error together. For behaviour that ends the process.
sub run_perl {
    my $code = shift;
    require IPC::Open3;
    require Symbol;
    my $out = Symbol::gensym();
    my $pid = IPC::Open3::open3(my $in, $out, undef,
        $^X, (map { "-I$_" } grep { !ref } @INC), '-e', $code);
    close $in;
    my $text = do { local $/; <$out> };
    waitpid $pid, 0;
    return ($?, defined $text ? $text : '');
}

1;
