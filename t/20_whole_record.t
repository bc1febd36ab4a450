# Whole-record methods: copy_from, merge_from, clear, is_initialized,
# error_string, discard_unkown_fields, the two text forms and fields.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use quillon_event_log::QuillonEventLog;

my $PKG = 'quillon_event_log::QuillonEventLog';

{ package My::Sub;      our @ISA = ('quillon_event_log::QuillonEventLog'); }
{ package Other::Class; sub new { my $x = 1; bless \$x, shift } }

my %full = (
    bot_name           => 'bot',
    client_ip          => { ip0 => 1, ip3 => 4, rtdom_id => 7 },
    dest_ip            => {},
    src_port           => 443,
    device_id          => '18446744073709551615',
    mobile_is_app      => 1,
    is_https_request   => 0,
    anomaly_categories => ['c1'],
    anomalies          => ['a1', '', 'a3'],
    http_protocol_info => 'h2',
);

# ---- copy_from ---------------------------------------------------------------

{
    my $src = new_rec(\%full);
    my $o = new_rec(host => 'old', anomalies => ['old']);
    my @r = $o->copy_from($src);
    is scalar @r, 0, 'copy_from returns nothing';
    is_deeply $o->to_hashref, \%full, 'copy_from(object): the record becomes a copy';
    is hexs($o->pack), hexs($src->pack), 'copy_from(object): same wire bytes';
    $src->set_bot_name('changed');
    $src->add_anomalies('more');
    is $o->bot_name, 'bot', 'copy_from(object): later changes of the source do not reach the copy';
    is $o->anomalies_size, 3, 'copy_from(object): the copy keeps its own list';
}
{
    my $o = new_rec(host => 'old', src_port => 1, anomalies => ['x']);
    $o->copy_from({ bot_name => 'b', client_ip => { ip1 => 2 } });
    is_deeply $o->to_hashref, { bot_name => 'b', client_ip => { ip1 => 2 } },
        'copy_from(\%hash): fields not named in the hash become absent';
    is $o->has_host, 0, 'copy_from(\%hash): has_host is 0 afterwards';
    $o->copy_from({});
    is_deeply $o->to_hashref, {}, 'copy_from({}): empties the record';
}
{
    my $o = new_rec(\%full);
    my $before = $o->pack;
    $o->copy_from($o);
    is hexs($o->pack), hexs($before), 'copy_from(itself): unchanged';
    is_deeply $o->to_hashref, \%full, 'copy_from(itself): hash form unchanged';
    my $sub = bless new_rec(bot_name => 's'), 'My::Sub';
    $o->copy_from($sub);
    is_deeply $o->to_hashref, { bot_name => 's' }, 'copy_from(subclass object)';
    $o->copy_from(bless { host => 'hh' }, 'Some::Hash');
    is_deeply $o->to_hashref, { host => 'hh' }, 'copy_from(blessed hash ref): read as a hash';
}
for my $src ('a string', undef, ['bot_name', 'x'], 42, Other::Class->new, \'scalar', sub { 1 },
             quillon_event_log::IPAddr->new({ ip0 => 1 })) {
    my $o = new_rec(bot_name => 'stay', anomalies => ['a']);
    my $what = defined $src ? (ref $src || "'$src'") : 'undef';
    my @r = eval { $o->copy_from($src) };
    is $@, '', "copy_from($what): no exception";
    is scalar @r, 0, "copy_from($what): returns nothing";
    is_deeply $o->to_hashref, { bot_name => 'stay', anomalies => ['a'] }, "copy_from($what): record unchanged";
    @r = eval { $o->merge_from($src) };
    is $@, '', "merge_from($what): no exception";
    is_deeply $o->to_hashref, { bot_name => 'stay', anomalies => ['a'] }, "merge_from($what): record unchanged";
}
{
    my $hollow = bless \(my $z = 0), $PKG;
    my $o = new_rec(bot_name => 'x', anomalies => ['a']);
    $o->merge_from($hollow);
    is_deeply $o->to_hashref, { bot_name => 'x', anomalies => ['a'] }, 'merge_from(zero handle): nothing changes';
    $o->copy_from($hollow);
    is_deeply $o->to_hashref, {}, 'copy_from(zero handle): the record is cleared';
    is $o->length, 0, 'copy_from(zero handle): length 0';
}

# ---- merge_from --------------------------------------------------------------

{
    my $o = new_rec(bot_name => 'old', host => 'keep', src_port => 5, anomalies => ['a', 'b']);
    my @r = $o->merge_from({ bot_name => 'new', mobile_is_app => 0, anomalies => ['c'] });
    is scalar @r, 0, 'merge_from returns nothing';
    is_deeply $o->to_hashref,
        { bot_name => 'new', host => 'keep', src_port => 5, mobile_is_app => 0, anomalies => ['a', 'b', 'c'] },
        'merge_from(\%hash): named fields replaced, others kept, list appended';
}
{
    my $o = new_rec(anomalies => ['b']);
    $o->merge_from(new_rec(anomalies => ['a']));
    is_deeply [$o->anomalies], ['b', 'a'], 'merge_from(object): ["b"] + ["a"] gives ["b","a"]';
    $o->merge_from(new_rec(anomaly_categories => ['x', 'y']));
    is_deeply $o->to_hashref, { anomalies => ['b', 'a'], anomaly_categories => ['x', 'y'] },
        'merge_from(object): the other list appended too';
}
{
    my $o = new_rec(client_ip => { ip1 => 4 }, bot_name => 'b');
    $o->merge_from(new_rec(client_ip => { ip0 => 9 }));
    is_deeply $o->to_hashref, { client_ip => { ip0 => 9, ip1 => 4 }, bot_name => 'b' },
        'merge_from(object): address merged field by field';
    $o->merge_from({ client_ip => { ip1 => 5, rtdom_id => 3 } });
    is_deeply $o->to_hashref->{client_ip}, { ip0 => 9, ip1 => 5, rtdom_id => 3 },
        'merge_from(\%hash): address merged field by field';
    $o->merge_from({ client_ip => {} });
    is_deeply $o->to_hashref->{client_ip}, { ip0 => 9, ip1 => 5, rtdom_id => 3 },
        'merge_from(\%hash) with an empty address: address unchanged';
}
{
    my $o = new_rec(bot_name => 'b');
    $o->merge_from(new_rec(client_ip => { ip0 => 1 }));
    is_deeply $o->to_hashref, { bot_name => 'b', client_ip => { ip0 => 1 } },
        'merge_from(object): address created when absent, only ip0 set';
    $o->merge_from({ dest_ip => undef });
    is_deeply $o->to_hashref->{dest_ip}, {}, 'merge_from(\%hash) with dest_ip undef: empty address present';
    is hexs($o->pack), '0a0162' . '22020801' . '2a00', 'merge_from: exact bytes after the address merges';
}
{
    my $o = new_rec(bot_name => 'b');
    $o->merge_from(new_rec());
    is_deeply $o->to_hashref, { bot_name => 'b' }, 'merge_from(empty record): nothing changes';
    my $sub = bless new_rec(host => 'h'), 'My::Sub';
    $o->merge_from($sub);
    is_deeply $o->to_hashref, { bot_name => 'b', host => 'h' }, 'merge_from(subclass object)';
}
{
    my $o = $PKG->new(unhex('0a0161 f80107'));
    $o->merge_from($PKG->new(unhex('3005')));
    is hexs($o->pack), '0a0161' . 'f80107' . '3005', 'merge_from: unknown fields of the source appended after ours';
}
{
    my ($status, $out) = run_perl(<<'CODE');
use quillon_event_log::QuillonEventLog;
my $o = quillon_event_log::QuillonEventLog->new({ bot_name => 'self' });
$| = 1;
print "before\n";
eval { $o->merge_from($o) };
print "survived\n";
CODE
    isnt $status, 0, 'merge_from(itself): the child process does not exit normally';
    like $out, qr/CHECK failed: \(&from\) != \(this\): /, 'merge_from(itself): the fatal check is logged';
    like $out, qr/^before\n/, 'merge_from(itself): the child got as far as the call';
    unlike $out, qr/survived/, 'merge_from(itself): not catchable by eval';
}

# ---- clear, is_initialized, error_string --------------------------------------

{
    my $o = $PKG->new(new_rec(\%full)->pack . unhex('3005'));
    is $o->is_initialized, 1, 'is_initialized of a full record is 1';
    is $o->error_string, '', 'error_string of a full record is ""';
    my @r = $o->clear;
    is scalar @r, 0, 'clear returns nothing';
    is $o->length, 0, 'clear then length is 0';
    is $o->is_initialized, 1, 'clear then is_initialized is 1';
    is_deeply $o->to_hashref, {}, 'clear empties the hash form';
    is hexs($o->pack), '00' x 16, 'clear drops the unknown fields too (empty record packs to 16 zero bytes)';
    is $o->anomalies_size, 0, 'clear empties the lists';
    is $o->debug_string, '', 'clear then debug_string is ""';
    $o->set_bot_name('again');
    is hexs($o->pack), '0a05616761696e', 'a cleared record takes new values';
}
is $PKG->new->is_initialized, 1, 'is_initialized of an empty record is 1';
is $PKG->new->error_string, '', 'error_string of an empty record is ""';

# ---- discard_unkown_fields ---------------------------------------------------

{
    my $o = $PKG->new(unhex('0a0161 3005 22043005 0801 f80107 f2010155'));
    is hexs($o->pack), '0a0161' . '22040801' . '3005' . 'f2010155' . '3005' . 'f80107',
        'unknown fields kept before discard_unkown_fields';
    my @r = $o->discard_unkown_fields;
    is scalar @r, 0, 'discard_unkown_fields returns nothing';
    is hexs($o->pack), '0a0161' . '22020801' . 'f2010155',
        'discard_unkown_fields drops the unknown fields of the record and of its address';
    is_deeply $o->to_hashref, { bot_name => 'a', client_ip => { ip0 => 1 }, country_code => 'U' },
        'discard_unkown_fields keeps every known field';
}

# ---- debug_string and short_debug_string -------------------------------------

my @texts = (
    ['empty record', {}, '', ''],
    ['bot_name only', { bot_name => 'a' }, qq{bot_name: "a"\n}, q{bot_name: "a"}],
    ['client_ip with ip0', { client_ip => { ip0 => 1 } }, "client_ip {\n  ip0: 1\n}\n", 'client_ip { ip0: 1 }'],
    ['empty client_ip', { client_ip => {} }, "client_ip {\n}\n", 'client_ip { }'],
    ['all families', \%full,
     qq{bot_name: "bot"\n}
     . qq{client_ip {\n  ip0: 1\n  ip3: 4\n  rtdom_id: 7\n}\n}
     . qq{dest_ip {\n}\n}
     . qq{src_port: 443\n}
     . qq{device_id: 18446744073709551615\n}
     . qq{mobile_is_app: true\n}
     . qq{anomaly_categories: "c1"\n}
     . qq{anomalies: "a1"\n}
     . qq{anomalies: ""\n}
     . qq{anomalies: "a3"\n}
     . qq{is_https_request: false\n}
     . qq{http_protocol_info: "h2"\n},
     q{bot_name: "bot" client_ip { ip0: 1 ip3: 4 rtdom_id: 7 } dest_ip { } src_port: 443 }
     . q{device_id: 18446744073709551615 mobile_is_app: true anomaly_categories: "c1" }
     . q{anomalies: "a1" anomalies: "" anomalies: "a3" is_https_request: false http_protocol_info: "h2"}],
    ['numbers at zero', { src_port => 0, session_id => '0', is_update_request => 0, slot_number => 4294967295 },
     "src_port: 0\nsession_id: 0\nslot_number: 4294967295\nis_update_request: false\n",
     'src_port: 0 session_id: 0 slot_number: 4294967295 is_update_request: false'],
    ['escaped string', { bot_name => qq{q"b\\s\0n\xc3\xa9'\n\t\r\x01\x7f} },
     qq{bot_name: "q\\"b\\\\s\\000n\\303\\251\\'\\n\\t\\r\\001\\177"\n},
     qq{bot_name: "q\\"b\\\\s\\000n\\303\\251\\'\\n\\t\\r\\001\\177"}],
    ['empty string', { reason => '' }, qq{reason: ""\n}, q{reason: ""}],
);
for my $t (@texts) {
    my ($what, $h, $long, $short) = @$t;
    my $o = new_rec($h);
    is $o->debug_string, $long, "debug_string: $what";
    is $o->short_debug_string, $short, "short_debug_string: $what";
}
{
    my $o = $PKG->new(unhex('0a0161 3005 f80107'));
    is $o->debug_string, qq{bot_name: "a"\n6: 5\n31: 7\n}, 'debug_string: unknown varint fields 6 and 31 after the known ones';
    is $o->short_debug_string, q{bot_name: "a" 6: 5 31: 7}, 'short_debug_string: unknown varint fields 6 and 31';
    my $p = $PKG->new(unhex('35 01000000 f901 0200000000000000 3203616263'));
    is $p->debug_string, qq{6: 0x00000001\n31: 0x0000000000000002\n6: "abc"\n},
        'debug_string: unknown fixed32, fixed64 and length-delimited fields';
    my $g = $PKG->new(unhex('33 0801 34'));
    is $g->debug_string, qq{6 {\n  1: 1\n}\n}, 'debug_string: unknown group';
}
{
    my $o = new_rec(bot_name => "a\0b");
    is length($o->debug_string), length(qq{bot_name: "a\\000b"\n}), 'debug_string: length of the text with an escaped NUL';
    ok !utf8::is_utf8($o->debug_string), 'debug_string: a byte string';
}

# ---- fields ------------------------------------------------------------------

my @names = field_names();
{
    my @f = $PKG->fields;
    is scalar @f, 59, 'fields returns 59 names';
    is $f[0], 'bot_name', 'first name is bot_name';
    is $f[-1], 'http_protocol_info', 'last name is http_protocol_info';
    is_deeply \@f, \@names, 'fields on the class name: all names in field-number order';
    is_deeply [new_rec(bot_name => 'x')->fields], \@names, 'fields on an object';
    is_deeply [$PKG->new->fields], \@names, 'fields does not depend on what is set';
    my $code = $PKG->can('fields');
    is_deeply [$code->(undef)], \@names, 'fields on undef';
    is_deeply [$code->(42)], \@names, 'fields on a number';
    is_deeply [$code->([])], \@names, 'fields on an array ref';
    is_deeply [$code->(Other::Class->new)], \@names, 'fields on an object of another class';
    is_deeply [$code->(bless \(my $z = 0), $PKG)], \@names, 'fields on a zero handle';
    my $last = $PKG->fields;
    is $last, 'http_protocol_info', 'fields in scalar context gives "http_protocol_info"';
    my @again = $PKG->fields;
    $again[0] = 'changed';
    is(($PKG->fields)[0], 'bot_name', 'fields returns new strings each call');
    ok !grep({ $_ eq 'ip0' } @f), 'fields names no address field';
    eval { $code->() };
    like $@, qr/^Usage: quillon_event_log::QuillonEventLog::fields\(svTHIS\) at /, 'fields without arguments: usage error';
    eval { $PKG->fields(1) };
    like $@, qr/^Usage: quillon_event_log::QuillonEventLog::fields\(svTHIS\) at /, 'fields with two arguments: usage error';
}

# ---- usage and type errors of the whole-record methods -------------------------

{
    my $o = new_rec(bot_name => 'x');
    for my $c ([copy_from => [], 'svTHIS, sv'], [merge_from => [], 'svTHIS, sv'],
               [clear => [1], 'svTHIS'], [is_initialized => [1], 'svTHIS'],
               [error_string => [1], 'svTHIS'], [discard_unkown_fields => [1], 'svTHIS'],
               [debug_string => [1], 'svTHIS'], [short_debug_string => [1], 'svTHIS']) {
        my ($m, $args, $usage) = @$c;
        eval { $o->$m(@$args) };
        like $@, qr/^Usage: quillon_event_log::QuillonEventLog::$m\(\Q$usage\E\) at /, "$m: usage error \"$usage\"";
        eval { $PKG->can($m)->(Other::Class->new, ($m =~ /_from$/ ? ($o) : ())) };
        like $@, qr/^THIS is not of type quillon_event_log::QuillonEventLog at /, "$m on another class: type error";
    }
    is $o->bot_name, 'x', 'record unchanged after the failed calls';
}

done_testing;
