# Object life: `new` in all its shapes, handles, subclass objects, DESTROY, and
# what every method does with a handle that holds no record.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use quillon_event_log::QuillonEventLog;

my $PKG = 'quillon_event_log::QuillonEventLog';
my @table = field_table();
my @singular = grep { $_->[2] ne 'list' } @table;
my @lists    = grep { $_->[2] eq 'list' } @table;

{ package My::Sub;   our @ISA = ('quillon_event_log::QuillonEventLog'); }
{ package Other::Class; sub new { my $x = 1; bless \$x, shift } }

sub none_present { !@{ present_fields($_[0]) } }

# ---- new: argument shapes ----------------------------------------------------

eval { &quillon_event_log::QuillonEventLog::new() };
like $@, qr/^Usage: quillon_event_log::QuillonEventLog::new\(CLASS, \.\.\.\) at /,
    'new without arguments: usage error "CLASS, ..."';

{
    my $o = $PKG->new;
    is ref $o, $PKG, 'new(CLASS): object blessed into the exact class';
    ok none_present($o), 'new(CLASS): every has_ is 0';
    is $o->length, 0, 'new(CLASS): length is 0';
    is $o->anomalies_size + $o->anomaly_categories_size, 0, 'new(CLASS): both lists empty';
    isnt ${$o}, 0, 'new(CLASS): the handle holds a non-zero address';
    my $p = $PKG->new;
    isnt ${$p}, ${$o}, 'two objects hold different records';
    my @r = $PKG->new;
    is scalar @r, 1, 'new returns exactly one value';
}

eval { My::Sub->new };
like $@, qr/^invalid class My::Sub at /, 'new with a subclass name: "invalid class My::Sub"';
eval { $PKG->can('new')->('Foo') };
like $@, qr/^invalid class Foo at /, 'new with another name: "invalid class Foo"';
eval { $PKG->can('new')->('quillon_event_log::QuillonEventLogX') };
like $@, qr/^invalid class quillon_event_log::QuillonEventLogX at /, 'new with a longer name is refused';
eval { $PKG->can('new')->('quillon_event_log::QuillonEventLo') };
like $@, qr/^invalid class quillon_event_log::QuillonEventLo at /, 'new with a prefix of the name is refused';
eval { $PKG->can('new')->('quillon_event_log::IPAddr') };
like $@, qr/^invalid class quillon_event_log::IPAddr at /, 'new with the address class name is refused';
eval { $PKG->can('new')->('') };
like $@, qr/^invalid class  at /, 'new with an empty class name is refused';

{
    my $o = $PKG->new({ bot_name => 'bot', src_port => 8080, device_id => '42',
                        mobile_is_app => 1, client_ip => { ip0 => 1 }, anomalies => ['a'] });
    is ref $o, $PKG, 'new(CLASS, \%hash): object of the class';
    is_deeply $o->to_hashref, { bot_name => 'bot', src_port => 8080, device_id => '42',
                                mobile_is_app => 1, client_ip => { ip0 => 1 }, anomalies => ['a'] },
        'new(CLASS, \%hash): record filled from the hash';
    is hexs($o->pack), '0a03626f74' . '2202' . '0801' . '9801903f' . 'a8012a' . 'c80101' . 'ea020161',
        'new(CLASS, \%hash): exact wire bytes';
}
{
    my $o = $PKG->new({});
    ok none_present($o), 'new(CLASS, {}): every has_ is 0';
    is $o->length, 0, 'new(CLASS, {}): length 0';
    is_deeply $o->to_hashref, {}, 'new(CLASS, {}): empty hash form';
}
{
    my $o = $PKG->new(bless { bot_name => 'blessed' }, 'Some::Hash');
    is $o->bot_name, 'blessed', 'new(CLASS, blessed hash ref): read as a hash';
}
{
    my $src = $PKG->new({ bot_name => 'b', client_ip => { ip1 => 2 }, anomalies => ['x', 'y'],
                          session_id => '18446744073709551615', is_update_request => 0 });
    my $bytes = $src->pack;
    my $o = $PKG->new($bytes);
    is_deeply $o->to_hashref, $src->to_hashref, 'new(CLASS, bytes): same hash form as the packed record';
    is hexs($o->pack), hexs($bytes), 'new(CLASS, bytes): packs to the same bytes';
    ok $o->has_is_update_request, 'new(CLASS, bytes): has-bits kept (false flag present)';
}
{
    my @w;
    local $SIG{__WARN__} = sub { push @w, @_ };
    my $o = $PKG->new(undef);
    is ref $o, $PKG, 'new(CLASS, undef): object of the class';
    ok none_present($o), 'new(CLASS, undef): empty record';
    is $o->length, 0, 'new(CLASS, undef): length 0';
}
{
    my $o = $PKG->new('');
    ok none_present($o) && $o->length == 0, 'new(CLASS, ""): empty record';
}
for my $garbage ("\xff\xff\xff", "\x0a\x05ab", "\x07", "\x22\x05\x08\x01", "not a record") {
    my $o = eval { $PKG->new($garbage) };
    is $@, '', 'new(CLASS, garbage ' . hexs($garbage) . '): no exception';
    is ref $o, $PKG, 'new(CLASS, garbage ' . hexs($garbage) . '): still an object of the class';
}
{
    my $src = $PKG->new({ bot_name => 'keep' });
    my $o = $PKG->new($src);
    is ref $o, $PKG, 'new(CLASS, object): an object of the class';
    isnt ${$o}, ${$src}, 'new(CLASS, object): a record of its own';
    is_deeply $o->to_hashref, {}, 'new(CLASS, object): nothing copied (the reference text has no known field)';
    is hexs($o->pack), hexs($PKG->new("$src")->pack), 'new(CLASS, object): same as new(CLASS, "$object")';
    is $src->bot_name, 'keep', 'new(CLASS, object): the source is untouched';
}
{
    my $o = $PKG->new({ bot_name => 'x' }, 'extra');
    ok none_present($o), 'new(CLASS, \%hash, extra): empty record, arguments ignored';
    is_deeply $o->to_hashref, {}, 'new(CLASS, \%hash, extra): empty hash form';
    my $bytes = $PKG->new({ bot_name => 'y' })->pack;
    my $p = $PKG->new($bytes, undef, 1, 2);
    ok none_present($p), 'new(CLASS, bytes, 3 more): empty record';
    is $p->length, 0, 'new(CLASS, bytes, 3 more): length 0';
}

# ---- subclass objects made by re-blessing ------------------------------------

{
    my $o = bless $PKG->new, 'My::Sub';
    $o->set_bot_name('sub');
    is $o->bot_name, 'sub', 'subclass object: string setter and getter';
    is $o->has_bot_name, 1, 'subclass object: has_';
    $o->set_src_port(7);
    is $o->src_port, 7, 'subclass object: uint32 accessors';
    $o->set_device_id('9');
    is $o->device_id, '9', 'subclass object: uint64 accessors';
    $o->set_mobile_is_app(1);
    is $o->mobile_is_app, 1, 'subclass object: bool accessors';
    $o->add_anomalies('an');
    is $o->anomalies_size, 1, 'subclass object: list size';
    is_deeply [$o->anomalies], ['an'], 'subclass object: list getter';
    isa_ok $o->client_ip, 'quillon_event_log::IPAddr', 'subclass object: address getter';
    $o->set_client_ip(quillon_event_log::IPAddr->new({ ip2 => 3 }));
    is_deeply $o->to_hashref->{client_ip}, { ip2 => 3 }, 'subclass object: address setter';
    $o->clear_src_port;
    is $o->has_src_port, 0, 'subclass object: clear_';
    is hexs($o->pack), '0a03737562' . '22021803' . 'a80109' . 'c80101' . 'ea0202616e', 'subclass object: pack';
    is $o->length, 20, 'subclass object: length';
    is $o->is_initialized, 1, 'subclass object: is_initialized';
    is $o->error_string, '', 'subclass object: error_string';
    like $o->debug_string, qr/^bot_name: "sub"\n/, 'subclass object: debug_string';
    is scalar(() = $o->fields), 59, 'subclass object: fields';
    my $copy = $PKG->new;
    $copy->copy_from($o);
    is_deeply $copy->to_hashref, $o->to_hashref, 'subclass object as copy_from source';
    my $sub2 = bless $PKG->new, 'My::Sub';
    $sub2->merge_from($o);
    is_deeply $sub2->to_hashref, $o->to_hashref, 'subclass object as merge_from invocant and source';
    is $sub2->unpack($PKG->new({ host => 'h' })->pack), 1, 'subclass object: unpack';
    is_deeply $sub2->to_hashref, { host => 'h' }, 'subclass object: unpacked record';
    $sub2->clear;
    is $sub2->length, 0, 'subclass object: clear';
    $o->discard_unkown_fields;
    is $o->bot_name, 'sub', 'subclass object: discard_unkown_fields';
}

# ---- invocants of the wrong kind ---------------------------------------------

my %args_of = (set_bot_name => ['x'], set_src_port => [1], set_device_id => ['1'],
               set_mobile_is_app => [1], add_anomalies => ['a'], copy_from => [{}],
               merge_from => [{}], unpack => ['']);
my @probe = qw(clear pack length to_hashref is_initialized error_string debug_string
               short_debug_string discard_unkown_fields DESTROY copy_from merge_from unpack
               bot_name has_bot_name clear_bot_name set_bot_name src_port set_src_port
               set_device_id set_mobile_is_app client_ip has_client_ip anomalies
               anomalies_size clear_anomalies add_anomalies);
my %bad = (
    'unblessed hash ref'       => {},
    'unblessed scalar ref'     => \(my $n = 0),
    'number'                   => 42,
    'object of another class'  => Other::Class->new,
    'address object'           => quillon_event_log::IPAddr->new,
    'the class name'           => $PKG,
);
for my $what (sort keys %bad) {
    for my $m (@probe) {
        my $code = $PKG->can($m);
        eval { $code->($bad{$what}, @{ $args_of{$m} || [] }) };
        like $@, qr/^THIS is not of type quillon_event_log::QuillonEventLog at /, "$m on $what: type error";
    }
}

# ---- one argument too many: usage error, record unchanged --------------------

{
    my $o = $PKG->new({ bot_name => 'same', anomalies => ['a'] });
    my $before = $o->pack;
    my @cases = (
        [clear          => [1],          'clear(svTHIS)'],
        [pack           => [1],          'pack(svTHIS)'],
        [DESTROY        => [1],          'DESTROY(svTHIS)'],
        [set_bot_name   => ['x', 'y'],   'set_bot_name(svTHIS, svVAL)'],
        [clear_bot_name => [1],          'clear_bot_name(svTHIS)'],
        [add_anomalies  => ['b', 'c'],   'add_anomalies(svTHIS, svVAL)'],
        [copy_from      => [{}, 1],      'copy_from(svTHIS, sv)'],
        [merge_from     => [{}, 1],      'merge_from(svTHIS, sv)'],
        [unpack         => ['', 1],      'unpack(svTHIS, arg)'],
    );
    for my $c (@cases) {
        my ($m, $args, $usage) = @$c;
        eval { $o->$m(@$args) };
        like $@, qr/^Usage: quillon_event_log::QuillonEventLog::\Q$usage\E at /, "$m with one argument too many: usage error";
        is hexs($o->pack), hexs($before), "$m with one argument too many: record unchanged";
    }
}

# ---- DESTROY -----------------------------------------------------------------

{
    my $o = $PKG->new({ bot_name => 'gone' });
    isnt ${$o}, 0, 'live handle is non-zero';
    my @r = $o->DESTROY;
    is scalar @r, 0, 'DESTROY returns nothing';
    is ${$o}, 0, 'explicit DESTROY sets the handle to 0';
    my @g = $o->bot_name;
    is scalar @g, 0, 'after DESTROY the getter finds no record';
    $o->DESTROY;
    is ${$o}, 0, 'a second explicit DESTROY does nothing';
    undef $o;    # the automatic DESTROY must not free the record again
    pass 'automatic DESTROY after an explicit one';
}
{
    my $o = bless $PKG->new({ bot_name => 'gone' }), 'My::Sub';
    $o->DESTROY;
    is ${$o}, 0, 'explicit DESTROY of a subclass object sets the handle to 0';
}
{
    my ($status, $out) = run_perl(<<'CODE');
use quillon_event_log::QuillonEventLog;
for (1 .. 3) {
    my $o = quillon_event_log::QuillonEventLog->new({ bot_name => 'x' x 100, anomalies => ['a', 'b'],
                                                      client_ip => { ip0 => 1 } });
    $o->DESTROY;
    $o->DESTROY;
}
my $p = quillon_event_log::QuillonEventLog->new;
$p->set_host('h');
print "done\n";
CODE
    is $status, 0, 'explicit then automatic DESTROY in a child process: clean exit';
    is $out, "done\n", 'explicit then automatic DESTROY in a child process: ran to the end, nothing reported';
}
{
    my $e = bless \(my $x = 0), $PKG;
    my @r = eval { $e->DESTROY };
    is $@, '', 'DESTROY on a zero handle: no error';
    is scalar @r, 0, 'DESTROY on a zero handle: returns nothing';
}

# ---- handles that hold no record ---------------------------------------------

my $empty = bless \(my $zero = 0), $PKG;
my $NO_REC = qr/^THIS holds no quillon_event_log::QuillonEventLog record at /;

{
    my $h = $empty->to_hashref;
    ok !defined $h, 'zero handle: to_hashref gives undef';
    my $p = $empty->pack;
    ok !defined $p, 'zero handle: pack gives undef';
    is $empty->length, 0, 'zero handle: length 0';
    is $empty->is_initialized, 0, 'zero handle: is_initialized 0';
    is $empty->unpack("\x0a\x01\x61"), 0, 'zero handle: unpack 0';
    is $empty->debug_string, '', 'zero handle: debug_string ""';
    is $empty->short_debug_string, '', 'zero handle: short_debug_string ""';
    is $empty->error_string, '', 'zero handle: error_string ""';
    my $src = $PKG->new({ bot_name => 'src' });
    for my $c ([clear => []], [discard_unkown_fields => []], [copy_from => [$src]],
               [merge_from => [$src]], [copy_from => [{ bot_name => 'h' }]],
               [merge_from => [{ bot_name => 'h' }]], [DESTROY => []]) {
        my ($m, $args) = @$c;
        my @r = eval { $empty->$m(@$args) };
        is $@, '', "zero handle: $m does not die";
        is scalar @r, 0, "zero handle: $m returns nothing";
    }
    is ${$empty}, 0, 'zero handle: still 0 after the whole-record methods';
    is $src->bot_name, 'src', 'zero handle: copy_from/merge_from leave the source alone';
    is scalar(() = $empty->fields), 59, 'zero handle: fields still answers';
}

for my $f (@singular) {
    my $val = $f->[2] eq 'address' ? quillon_event_log::IPAddr->new({ ip0 => 1 })
            : $f->[2] eq 'string'  ? 'v' : 1;
    empty_handle_ok($empty, $f->[0], $val, $NO_REC, 'zero handle');
}
for my $f (@lists) {
    my $name = $f->[0];
    my @r = $empty->$name;
    is scalar @r, 0, "zero handle: $name list getter returns the empty list";
    @r = $empty->$name(0);
    is scalar @r, 0, "zero handle: $name(0) returns the empty list";
    eval { $empty->${\"${name}_size"} };
    like $@, $NO_REC, "zero handle: ${name}_size dies";
    eval { $empty->${\"clear_$name"} };
    like $@, $NO_REC, "zero handle: clear_$name dies";
    eval { $empty->${\"add_$name"}('v') };
    like $@, $NO_REC, "zero handle: add_$name dies";
}

done_testing;
