package quillon_event_log::Sample;

# Deterministic synthetic event records, for benchmarks, demonstrations and
# tests of the tools that read records: a seeded generator of hashes in the
# codec's hash form (byte strings, addresses as text). It needs no other
# module of the distribution; quillon_event_log::Codec turns its output into
# wire bytes.

use strict;
use warnings;

our $VERSION = '1.0';

use Carp ();

# ---- the data the records are made of ----------------------------------------
#
# Everything below is fixed data. Records pick from these tables with the
# generator's own random numbers, so the tables' order is part of the output:
# changing a table changes every sample made with it.

# The six hours the request times are spread over, from
# 2026-11-20T00:00:00Z on.
use constant START => 1763596800;
use constant SPAN  => 6 * 3600;

# How many distinct clients a generator invents. Each event comes from one of
# them, lower numbers more often, so addresses, device ids and agents repeat
# the way they do in real traffic and top-N lists have a head.
use constant CLIENTS => 2048;

# Bots: name, signature, signature category, classification, User-Agent.
my @BOTS = (
    ['Googlebot', 'Googlebot', 'Search Engine', 'Trusted Bot',
     'Mozilla/5.0 (compatible; Googlebot/2.1; +http://www.google.com/bot.html)'],
    ['Bingbot', 'Bingbot', 'Search Engine', 'Trusted Bot',
     'Mozilla/5.0 (compatible; bingbot/2.0; +http://www.bing.com/bingbot.htm)'],
    ['DuckDuckBot', 'DuckDuckBot', 'Search Engine', 'Trusted Bot',
     'DuckDuckBot/1.1; (+http://duckduckgo.com/duckduckbot.html)'],
    ['YandexBot', 'YandexBot', 'Search Engine', 'Trusted Bot',
     'Mozilla/5.0 (compatible; YandexBot/3.0; +http://yandex.com/bots)'],
    ['Baiduspider', 'Baiduspider', 'Search Engine', 'Trusted Bot',
     'Mozilla/5.0 (compatible; Baiduspider/2.0; +http://www.baidu.com/search/spider.html)'],
    ['Applebot', 'Applebot', 'Search Engine', 'Trusted Bot',
     'Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_5) AppleWebKit/605.1.15 (KHTML, like Gecko) '
     . 'Version/13.1.1 Safari/605.1.15 (Applebot/0.1; +http://www.apple.com/go/applebot)'],
    ['facebookexternalhit', 'Facebook External Hit', 'Social Media Agent', 'Trusted Bot',
     'facebookexternalhit/1.1 (+http://www.facebook.com/externalhit_uatext.php)'],
    ['Twitterbot', 'Twitterbot', 'Social Media Agent', 'Trusted Bot', 'Twitterbot/1.0'],
    ['LinkedInBot', 'LinkedInBot', 'Social Media Agent', 'Trusted Bot',
     'LinkedInBot/1.0 (compatible; Mozilla/5.0; Apache-HttpClient +http://www.linkedin.com)'],
    ['Slackbot', 'Slackbot Link Expander', 'Social Media Agent', 'Trusted Bot',
     'Slackbot-LinkExpanding 1.0 (+https://api.slack.com/robots)'],
    ['UptimeRobot', 'UptimeRobot', 'Site Monitor', 'Trusted Bot',
     'Mozilla/5.0+(compatible; UptimeRobot/2.0; http://www.uptimerobot.com/)'],
    ['Pingdom', 'Pingdom', 'Site Monitor', 'Trusted Bot',
     'Pingdom.com_bot_version_1.4_(http://www.pingdom.com/)'],
    ['curl', 'curl', 'HTTP Library', 'Untrusted Bot', 'curl/8.5.0'],
    ['Wget', 'Wget', 'HTTP Library', 'Untrusted Bot', 'Wget/1.21.4'],
    ['python-requests', 'Python Requests', 'HTTP Library', 'Untrusted Bot', 'python-requests/2.31.0'],
    ['Python-urllib', 'Python urllib', 'HTTP Library', 'Untrusted Bot', 'Python-urllib/3.11'],
    ['Go-http-client', 'Go HTTP Client', 'HTTP Library', 'Untrusted Bot', 'Go-http-client/1.1'],
    ['okhttp', 'OkHttp', 'HTTP Library', 'Untrusted Bot', 'okhttp/4.12.0'],
    ['Apache-HttpClient', 'Apache HttpClient', 'HTTP Library', 'Untrusted Bot',
     'Apache-HttpClient/4.5.14 (Java/17.0.9)'],
    ['aiohttp', 'aiohttp', 'HTTP Library', 'Untrusted Bot', 'Python/3.11 aiohttp/3.9.1'],
    ['axios', 'axios', 'HTTP Library', 'Untrusted Bot', 'axios/1.6.2'],
    ['Scrapy', 'Scrapy', 'Web Scraper', 'Untrusted Bot', 'Scrapy/2.11.0 (+https://scrapy.org)'],
    ['AhrefsBot', 'AhrefsBot', 'SEO Crawler', 'Untrusted Bot',
     'Mozilla/5.0 (compatible; AhrefsBot/7.0; +http://ahrefs.com/robot/)'],
    ['SemrushBot', 'SemrushBot', 'SEO Crawler', 'Untrusted Bot',
     'Mozilla/5.0 (compatible; SemrushBot/7~bl; +http://www.semrush.com/bot.html)'],
    ['MJ12bot', 'MJ12bot', 'SEO Crawler', 'Untrusted Bot',
     'Mozilla/5.0 (compatible; MJ12bot/v1.4.8; http://mj12bot.com/)'],
    ['HeadlessChrome', 'Headless Chrome', 'Headless Browser', 'Untrusted Bot',
     'Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) '
     . 'HeadlessChrome/120.0.6099.109 Safari/537.36'],
    ['PhantomJS', 'PhantomJS', 'Headless Browser', 'Untrusted Bot',
     'Mozilla/5.0 (Unknown; Linux x86_64) AppleWebKit/538.1 (KHTML, like Gecko) PhantomJS/2.1.1 Safari/538.1'],
    ['GPTBot', 'GPTBot', 'AI Crawler', 'Untrusted Bot',
     'Mozilla/5.0 AppleWebKit/537.36 (KHTML, like Gecko; compatible; GPTBot/1.0; +https://openai.com/gptbot)'],
    ['CCBot', 'CCBot', 'AI Crawler', 'Untrusted Bot', 'CCBot/2.0 (https://commoncrawl.org/faq/)'],
    ['sqlmap', 'sqlmap', 'Vulnerability Scanner', 'Malicious Bot',
     'sqlmap/1.7.12#stable (https://sqlmap.org)'],
    ['Nikto', 'Nikto', 'Vulnerability Scanner', 'Malicious Bot',
     'Mozilla/5.00 (Nikto/2.5.0) (Evasions:None) (Test:000001)'],
    ['Nuclei', 'Nuclei', 'Vulnerability Scanner', 'Malicious Bot',
     'Nuclei - Open-source project (github.com/projectdiscovery/nuclei)'],
    ['WPScan', 'WPScan', 'Vulnerability Scanner', 'Malicious Bot',
     'WPScan v3.8.25 (https://wpscan.com/wordpress-security-scanner)'],
    ['masscan', 'masscan', 'Network Scanner', 'Malicious Bot',
     'masscan/1.3 (https://github.com/robertdavidgraham/masscan)'],
    ['zgrab', 'zgrab', 'Network Scanner', 'Malicious Bot', 'Mozilla/5.0 zgrab/0.x'],
    ['Nmap Scripting Engine', 'Nmap NSE', 'Network Scanner', 'Malicious Bot',
     'Mozilla/5.0 (compatible; Nmap Scripting Engine; https://nmap.org/book/nse.html)'],
    ['gobuster', 'gobuster', 'Exploit Tool', 'Malicious Bot', 'gobuster/3.6'],
    ['DirBuster', 'DirBuster', 'Exploit Tool', 'Malicious Bot',
     'DirBuster-1.0-RC1 (http://www.owasp.org/index.php/Category:OWASP_DirBuster_Project)'],
    ['Hydra', 'Hydra', 'Credential Stuffing', 'Malicious Bot', 'Mozilla/4.0 (Hydra)'],
    ['OpenBullet', 'OpenBullet', 'Credential Stuffing', 'Malicious Bot',
     'Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) '
     . 'Chrome/118.0.0.0 Safari/537.36'],
);

# What a bot of each signature category does: which requests it makes (its
# own path set instead of the site's, for part of its requests) and how its
# headers look.
my %BEHAVIOUR_OF_CATEGORY = (
    'Search Engine'         => { paths => 'crawl',   headers => 'crawler' },
    'Social Media Agent'    => { paths => 'crawl',   headers => 'crawler' },
    'Site Monitor'          => { paths => 'monitor', headers => 'minimal' },
    'HTTP Library'          => { paths => '',        headers => 'minimal' },
    'Web Scraper'           => { paths => 'crawl',   headers => 'crawler' },
    'SEO Crawler'           => { paths => 'crawl',   headers => 'crawler' },
    'Headless Browser'      => { paths => '',        headers => 'browser' },
    'AI Crawler'            => { paths => 'crawl',   headers => 'crawler' },
    'Vulnerability Scanner' => { paths => 'scan',    headers => 'minimal' },
    'Network Scanner'       => { paths => 'scan',    headers => 'minimal' },
    'Exploit Tool'          => { paths => 'scan',    headers => 'minimal' },
    'Credential Stuffing'   => { paths => 'login_attack', headers => 'browser' },
);

my @BROWSER_AGENTS = (
    'Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36',
    'Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/119.0.0.0 Safari/537.36',
    'Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36',
    'Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36',
    'Mozilla/5.0 (Linux; Android 14; Pixel 8) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.6099.144 Mobile Safari/537.36',
    'Mozilla/5.0 (Windows NT 10.0; Win64; x64; rv:121.0) Gecko/20100101 Firefox/121.0',
    'Mozilla/5.0 (X11; Ubuntu; Linux x86_64; rv:120.0) Gecko/20100101 Firefox/120.0',
    'Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.2 Safari/605.1.15',
    'Mozilla/5.0 (iPhone; CPU iPhone OS 17_2 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.2 Mobile/15E148 Safari/604.1',
    'Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36 Edg/120.0.0.0',
    'Mozilla/5.0 (Linux; Android 13; SM-S911B) AppleWebKit/537.36 (KHTML, like Gecko) SamsungBrowser/23.0 Chrome/115.0.0.0 Mobile Safari/537.36',
    'Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36 OPR/106.0.0.0',
);

# Mobile applications: display name (UTF-8 bytes), User-Agent product,
# operating system, versions. Some names are not ASCII on purpose, so the
# samples carry multi-byte UTF-8 text.
my @APPS = (
    ['ShopMate',                  'ShopMate',          'Android', ['4.12.0', '4.12.1', '4.13.0']],
    ['ShopMate',                  'ShopMate',          'iOS',     ['4.12.0', '4.13.0']],
    ["Caf\xC3\xA9 Finder",        'CafeFinder',        'iOS',     ['2.3.1', '2.4.0']],
    ["\xC3\x91and\xC3\xBA Pay",   'NanduPay',          'Android', ['1.0.7', '1.1.0']],
    ['TransitNow',                'TransitNow',        'Android', ['7.1.2']],
    ["B\xC3\xBCcherwurm Reader",  'BuecherwurmReader', 'iOS',     ['3.0.0', '3.0.2']],
);
my %OS_VERSIONS = (
    Android => ['Android 13; SM-S911B', 'Android 14; Pixel 8', 'Android 14; SM-A546B'],
    iOS     => ['iPhone; iOS 16.7', 'iPhone; iOS 17.2', 'iPad; iOS 17.1'],
);

# Country codes, more frequent ones repeated.
my @COUNTRIES = qw(
    US US US US US US DE DE DE GB GB FR FR NL NL CN CN RU RU IN IN BR BR JP
    KR CA AU SG VN UA PL SE IT ES ID TR ZA MX AR IE CH
);
my %LANGUAGE_OF_COUNTRY = (
    US => 'en-US,en;q=0.9',       GB => 'en-GB,en;q=0.9',        IE => 'en-IE,en;q=0.9',
    AU => 'en-AU,en;q=0.9',       CA => 'en-CA,en;q=0.9,fr-CA;q=0.8',
    DE => 'de-DE,de;q=0.9,en;q=0.8', CH => 'de-CH,de;q=0.9,fr;q=0.7', FR => 'fr-FR,fr;q=0.9,en;q=0.6',
    NL => 'nl-NL,nl;q=0.9,en;q=0.8', CN => 'zh-CN,zh;q=0.9',         RU => 'ru-RU,ru;q=0.9,en;q=0.5',
    IN => 'en-IN,hi;q=0.8,en;q=0.7', BR => 'pt-BR,pt;q=0.9,en;q=0.7', JP => 'ja-JP,ja;q=0.9',
    KR => 'ko-KR,ko;q=0.9',       SG => 'en-SG,zh;q=0.8',          VN => 'vi-VN,vi;q=0.9',
    UA => 'uk-UA,uk;q=0.9,ru;q=0.7', PL => 'pl-PL,pl;q=0.9',         SE => 'sv-SE,sv;q=0.9,en;q=0.8',
    IT => 'it-IT,it;q=0.9',       ES => 'es-ES,es;q=0.9',          ID => 'id-ID,id;q=0.9',
    TR => 'tr-TR,tr;q=0.9',       ZA => 'en-ZA,af;q=0.8',          MX => 'es-MX,es;q=0.9',
    AR => 'es-AR,es;q=0.9',
);

# First octets of public IPv4 client addresses, and prefixes (two groups)
# of IPv6 client addresses.
my @IPV4_FIRST_OCTETS = qw(
    23 31 37 45 46 51 52 62 66 77 78 81 82 85 88 91 93 95 103 104 109 112 118 123
    125 141 146 151 154 157 162 171 176 178 180 185 188 193 194 195 197 201 212 213 217
);
my @IPV6_PREFIXES = qw(
    2001:4860 2a00:1450 2a02:810d 2600:1f18 2406:da14 2c0f:fb50 2001:67c 2a01:4f8 2604:a880 240e:3b4
);

# The virtual servers the traffic reaches: weight, name, security profile,
# destination addresses (some in route domains, "%N"), port, HTTPS, the
# browser verification configured there, host names and the path set.
my @SITES = (
    { weight => 30, name => 'vs-shop-https', profile => 'bot-defense-standard',
      ip4 => '192.0.2.10', ip6 => '2001:db8:10::10', port => 443, https => 1, verify => 'js_challenge',
      hosts => ['shop.example.com', 'www.example.com', 'checkout.example.com'], paths => 'shop' },
    { weight => 6, name => 'vs-shop-http', profile => 'bot-defense-standard',
      ip4 => '192.0.2.10', ip6 => '2001:db8:10::10', port => 80, https => 0, verify => 'js_challenge',
      hosts => ['shop.example.com', 'www.example.com'], paths => 'shop' },
    { weight => 16, name => 'vs-api-https', profile => 'api-protection',
      ip4 => '10.1.20.5%2', ip6 => 'fd00:1:20::5%2', port => 443, https => 1, verify => 'none',
      hosts => ['api.example.com'], paths => 'api' },
    { weight => 14, name => 'vs-login-https', profile => 'bot-defense-strict',
      ip4 => '198.51.100.20', ip6 => '2001:db8:20::20', port => 443, https => 1, verify => 'js_challenge_and_fingerprint',
      hosts => ['login.example.net', 'accounts.example.net'], paths => 'login' },
    { weight => 10, name => 'vs-static-https', profile => 'static-relaxed',
      ip4 => '203.0.113.80', ip6 => '2001:db8:80::80', port => 443, https => 1, verify => 'none',
      hosts => ['static.example.org', 'cdn.example.org'], paths => 'static' },
    { weight => 8, name => 'vs-blog-https', profile => 'bot-defense-standard',
      ip4 => '203.0.113.81', ip6 => '2001:db8:80::81', port => 443, https => 1, verify => 'js_challenge',
      hosts => ['blog.example.org'], paths => 'blog' },
);
# Mobile applications talk to their own virtual server only.
my %MOBILE_SITE = (
    name => 'vs-mobile-api', profile => 'mobile-sdk-profile',
    ip4 => '10.1.30.7%3', ip6 => 'fd00:1:30::7%3', port => 8443, https => 1, verify => 'none',
    hosts => ['m-api.example.com'], paths => 'mobile',
);

# Request targets. Each entry: method, path, then optional parts:
#   tail  => what follows the path: id (a number), slug (words), asset (a hashed file name)
#   query => the kind of query string (see %QUERY_MAKERS)
#   body  => form, json, or binary (gzip-compressed bytes, not UTF-8) for POST and PUT
#   ms    => [microservice name, microservice type, matched wildcard URL]
my %PATHS = (
    shop => [
        { method => 'GET',  path => '/' },
        { method => 'GET',  path => '/' , query => 'tracking' },
        { method => 'GET',  path => '/products', query => 'page' },
        { method => 'GET',  path => '/products/', tail => 'id', query => 'product' },
        { method => 'GET',  path => '/products/', tail => 'id' },
        { method => 'GET',  path => '/search', query => 'search' },
        { method => 'GET',  path => '/category/shoes', query => 'page' },
        { method => 'GET',  path => '/category/electronics', query => 'page' },
        { method => 'GET',  path => '/cart' },
        { method => 'POST', path => '/cart/add', body => 'form' },
        { method => 'GET',  path => '/checkout', query => 'session' },
        { method => 'POST', path => '/checkout/payment', body => 'form', query => 'session' },
        { method => 'GET',  path => '/account/orders' },
    ],
    api => [
        { method => 'GET',     path => '/api/v2/products', query => 'page',
          ms => ['catalog-api', 'API', '/api/v2/products*'] },
        { method => 'GET',     path => '/api/v2/products/', tail => 'id',
          ms => ['catalog-api', 'API', '/api/v2/products*'] },
        { method => 'GET',     path => '/api/v2/search', query => 'search',
          ms => ['catalog-api', 'API', '/api/v2/search*'] },
        { method => 'POST',    path => '/api/v2/cart', body => 'json',
          ms => ['cart-api', 'API', '/api/v2/cart*'] },
        { method => 'POST',    path => '/api/v2/cart/checkout', body => 'json', query => 'session',
          ms => ['cart-api', 'API', '/api/v2/cart*'] },
        { method => 'PUT',     path => '/api/v2/inventory/', tail => 'id', body => 'binary',
          ms => ['inventory-api', 'API', '/api/v2/inventory/*'] },
        { method => 'POST',    path => '/api/v1/auth/token', body => 'form',
          ms => ['auth-api', 'API', '/api/v1/auth/*'] },
        { method => 'OPTIONS', path => '/api/v2/cart',
          ms => ['cart-api', 'API', '/api/v2/cart*'] },
        { method => 'POST',    path => '/graphql', body => 'json',
          ms => ['graphql-gateway', 'API', '/graphql'] },
    ],
    login => [
        { method => 'GET',  path => '/login', query => 'token' },
        { method => 'POST', path => '/login', body => 'form',
          ms => ['login-page', 'Web', '/login*'] },
        { method => 'POST', path => '/account/login', body => 'form',
          ms => ['login-page', 'Web', '/account/login*'] },
        { method => 'GET',  path => '/oauth/authorize', query => 'token' },
        { method => 'POST', path => '/password/reset', body => 'form' },
        { method => 'GET',  path => '/register' },
        { method => 'GET',  path => '/logout' },
    ],
    static => [
        { method => 'GET', path => '/assets/app.', tail => 'asset' },
        { method => 'GET', path => '/assets/style.css' },
        { method => 'GET', path => '/images/banner.webp' },
        { method => 'GET', path => '/images/products/', tail => 'id' },
        { method => 'GET', path => '/fonts/inter.woff2' },
        { method => 'GET', path => '/favicon.ico' },
    ],
    blog => [
        { method => 'GET', path => '/' },
        { method => 'GET', path => '/posts/', tail => 'slug' },
        { method => 'GET', path => '/posts/', tail => 'slug', query => 'tracking' },
        { method => 'GET', path => '/tag/', tail => 'slug', query => 'page' },
        { method => 'GET', path => '/feed.xml' },
    ],
    mobile => [
        { method => 'GET',  path => '/mobile/v3/feed', query => 'page',
          ms => ['mobile-feed', 'API', '/mobile/v3/feed*'] },
        { method => 'GET',  path => '/mobile/v3/config',
          ms => ['mobile-config', 'API', '/mobile/v3/config'] },
        { method => 'POST', path => '/mobile/v3/login', body => 'json',
          ms => ['mobile-auth', 'API', '/mobile/v3/login'] },
        { method => 'GET',  path => '/mobile/v3/profile',
          ms => ['mobile-profile', 'API', '/mobile/v3/profile*'] },
        { method => 'POST', path => '/mobile/v3/events', body => 'binary',
          ms => ['mobile-telemetry', 'API', '/mobile/v3/events*'] },
    ],
    # The bots' own path sets, used instead of the site's for part of their requests.
    crawl => [
        { method => 'GET', path => '/robots.txt' },
        { method => 'GET', path => '/sitemap.xml' },
        { method => 'GET', path => '/' },
    ],
    monitor => [
        { method => 'HEAD', path => '/' },
        { method => 'GET',  path => '/health' },
    ],
    scan => [
        { method => 'GET',  path => '/wp-login.php' },
        { method => 'GET',  path => '/.env' },
        { method => 'GET',  path => '/.git/config' },
        { method => 'GET',  path => '/phpmyadmin/index.php' },
        { method => 'GET',  path => '/server-status' },
        { method => 'GET',  path => '/actuator/env' },
        { method => 'POST', path => '/vendor/phpunit/phpunit/src/Util/PHP/eval-stdin.php', body => 'form' },
        { method => 'GET',  path => '/cgi-bin/../../../../etc/passwd' },
        { method => 'GET',  path => '/products', query => 'injection' },
        { method => 'GET',  path => '/search', query => 'script' },
    ],
    # Credential stuffing goes for the login forms.
    login_attack => [
        { method => 'POST', path => '/login', body => 'form',
          ms => ['login-page', 'Web', '/login*'] },
        { method => 'POST', path => '/account/login', body => 'form',
          ms => ['login-page', 'Web', '/account/login*'] },
    ],
);

my @WORDS = (
    'shoes', 'running+shoes', 'laptop', 'usb-c+cable', 'headphones', 'winter+jacket', 'coffee+maker',
    'caf%C3%A9', 'gr%C3%B6%C3%9Fe+42', 'phone+case', 'gift+card', 'desk+lamp', 'backpack', 'monitor+27',
);
my @SLUGS = (
    'black-friday-deals', 'how-we-ship', 'winter-collection', 'release-notes-4-13', 'caring-for-leather',
    'our-new-warehouse', 'privacy-update', 'top-10-gifts',
);
my @REFERRERS = qw(home search mail ad partner);
my @UTM_SOURCES = qw(newsletter google facebook instagram partner_portal);
my @UTM_MEDIUMS = qw(email cpc social referral);
my @SORTS = qw(price relevance newest rating);
my @USERS = qw(alice bob carol dave erin frank grace heidi ivan judy mallory oscar peggy trent);

# Anomalies by category, with the client groups that show them.
my @ANOMALY_TABLE = (
    ['Suspicious HTTP Headers', [qw(untrusted malicious suspicious)], [
        'Missing Accept-Language header', 'Missing Accept header',
        'Header order does not match the User-Agent' ]],
    ['Automation Tool', [qw(untrusted malicious)], [
        'Known automation User-Agent', 'Headless browser detected', 'WebDriver property present' ]],
    ['Browser Verification', [qw(browser suspicious untrusted)], [
        'JavaScript challenge not completed', 'Device ID missing' ]],
    ['Device ID Tampering', [qw(suspicious)], [
        'Device ID changed within session' ]],
    ['Session Anomaly', [qw(suspicious malicious)], [
        'Cookie replayed from another client' ]],
    ['Rate Anomaly', [qw(untrusted malicious suspicious app)], [
        'Too many requests per session', 'Too many requests per client address' ]],
    ['Credential Stuffing', [qw(malicious)], [
        'Login attempts above threshold', 'Known leaked credentials submitted' ]],
    ['IP Reputation', [qw(untrusted malicious suspicious)], [
        'Client address on reputation list', 'Request from anonymizing proxy',
        'Request from hosting provider network' ]],
    ['Geolocation', [qw(browser suspicious)], [
        'Geolocation does not match Accept-Language', 'Timezone does not match geolocation' ]],
    ['Attack Signature', [qw(malicious)], [
        'SQL injection pattern in query', 'Path traversal pattern in URI' ]],
    ['Impersonation', [qw(trusted)], [
        'Search engine claim not verified by reverse DNS' ]],
    ['Mobile Integrity', [qw(app)], [
        'Mobile app running in emulator', 'Rooted or jailbroken device' ]],
);
# group => [[anomaly, category], ...], built from the table above.
my %ANOMALIES_OF_GROUP;
for my $row (@ANOMALY_TABLE) {
    my ($category, $groups, $anomalies) = @$row;
    for my $group (@$groups) {
        push @{ $ANOMALIES_OF_GROUP{$group} }, map { [$_, $category] } @$anomalies;
    }
}
# How many anomalies a record of each group has: a list to pick from.
my %ANOMALY_COUNTS_OF_GROUP = (
    trusted    => [0, 0, 0, 0, 0, 0, 0, 0, 0, 1],
    browser    => [0, 0, 0, 0, 0, 0, 0, 0, 1, 2],
    human      => [0],
    suspicious => [1, 1, 2, 2, 3, 4],
    untrusted  => [0, 1, 1, 2, 2, 3],
    malicious  => [1, 2, 2, 3, 3, 4],
    app        => [0, 0, 0, 0, 0, 0, 0, 0, 1, 2],
);

# The configured mitigation action of each group, with its reason.
my %POLICIES_OF_GROUP = (
    trusted    => [['none', 'Trusted bot'], ['none', 'Trusted bot'], ['alarm', 'Trusted bot, report only']],
    untrusted  => [['alarm', 'Untrusted bot'], ['rate-limit', 'Untrusted bot above rate limit'],
                   ['captcha', 'Untrusted bot challenged'], ['block', 'Untrusted bot not allowed on this URL']],
    malicious  => [['block', 'Malicious bot'], ['block', 'Malicious bot'], ['tcp-rst', 'Malicious bot'],
                   ['honeypot', 'Malicious bot sent to honeypot page']],
    browser    => [['none', 'Browser verified'], ['none', 'No anomalies']],
    human      => [['none', 'Human behaviour detected']],
    suspicious => [['captcha', 'Suspicious browser'], ['challenge', 'Suspicious browser'],
                   ['alarm', 'Suspicious browser, report only']],
    app        => [['none', 'Mobile SDK verified'], ['none', 'Mobile SDK verified'],
                   ['block', 'Mobile app integrity check failed']],
);
# When the actual action differs from the configured one: the alternatives
# for each configured action, with the actual action's reason.
my %OVERRIDES_OF_ACTION = (
    none       => [['block', 'Client address on deny list'], ['captcha', 'Session exceeded request threshold']],
    alarm      => [['block', 'Client address on deny list']],
    block      => [['alarm', 'Transparent mode: block not enforced'], ['none', 'Client address on allow list']],
    'tcp-rst'  => [['block', 'TCP reset not possible on HTTP/2, blocked instead']],
    captcha    => [['block', 'CAPTCHA failed too many times'], ['none', 'Valid CAPTCHA cookie']],
    challenge  => [['none', 'Valid verification cookie']],
    'rate-limit' => [['none', 'Below rate limit threshold']],
    honeypot   => [['block', 'Honeypot page not configured']],
);
# Percent of records whose actual action differs from the configured one.
use constant OVERRIDE_PERCENT => 15;

my %REQUEST_STATUS_OF_ACTION = (
    none => 'passed', alarm => 'alerted', block => 'blocked', 'tcp-rst' => 'blocked',
    captcha => 'challenged', challenge => 'challenged', 'rate-limit' => 'rate_limited',
    honeypot => 'redirected',
);
my %REASON_OF_GROUP = (
    trusted    => ['Trusted bot verified by reverse DNS', 'Trusted bot signature'],
    untrusted  => ['Bot signature matched', 'Bot signature matched', 'Anomaly score above threshold'],
    malicious  => ['Malicious bot signature matched', 'Attack signature matched', 'Anomaly score above threshold'],
    browser    => ['Browser verified', 'Valid verification cookie'],
    human      => ['Human behaviour detected'],
    suspicious => ['Anomaly score above threshold', 'Browser verification failed'],
    app        => ['Mobile SDK verified', 'Valid mobile SDK token'],
);
my @HUMAN_BEHAVIOUR  = qw(yes yes yes no unknown);
my @CAPTCHA_STATUSES = qw(sent correct incorrect);
my @CHALLENGE_FAILURES = (
    'Cookie not returned', 'Invalid challenge response', 'Challenge timed out', 'JavaScript not executed',
);
my @PREVIOUS_ACTIONS = (
    ['js_challenge', 'passed'], ['js_challenge', 'passed'], ['js_challenge', 'failed'],
    ['captcha', 'passed'], ['captcha', 'failed'], ['captcha', 'pending'], ['none', 'passed'],
);

# Header blocks that follow the request line and Host, by header style.
my %ACCEPT_OF_STYLE = (
    browser => "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8\r\n",
    crawler => "Accept: text/html,application/xhtml+xml;q=0.9,*/*;q=0.8\r\n",
    minimal => "Accept: */*\r\n",
    app     => "Accept: application/json\r\n",
);

# A list in which each value appears as often as its weight says.
my @SITE_CHOICES = map { ($_) x $_->{weight} } @SITES;

# ---- the generator -----------------------------------------------------------

my %DEFAULTS = (seed => 1, count => 1000);
my $MAX_SEED  = '18446744073709551615';
my $MAX_COUNT = 281_474_976_710_655;    # 2**48 - 1

sub new {
    my $class = shift;
    Carp::croak("$class->new: odd number of arguments") if @_ % 2;
    my %args = @_;
    for my $name (sort keys %args) {
        Carp::croak(qq{$class->new: unknown option "$name"}) unless exists $DEFAULTS{$name};
    }
    my %opt = (%DEFAULTS, map { $_ => $args{$_} } grep { defined $args{$_} } keys %args);

    my $seed = $opt{seed};
    Carp::croak(qq{$class->new: seed must be an integer from 0 to $MAX_SEED, not "$seed"})
        unless _is_uint64_text($seed);
    my $count = $opt{count};
    # The cap keeps index * SPAN, from which the request times are made,
    # within a 64-bit integer.
    Carp::croak(qq{$class->new: count must be an integer from 0 to $MAX_COUNT, not "$count"})
        unless defined $count && !ref $count && $count =~ /\A[0-9]{1,15}\z/ && $count <= $MAX_COUNT;

    my $self = bless {
        seed   => $seed + 0,
        count  => $count + 0,
        index  => 0,
        state  => $seed + 0,    # the PRNG's state
        draws  => [],           # small draws not used yet (see _refill)
    }, $class;
    $self->{clients} = [ map { $self->_client } 1 .. CLIENTS ];
    return $self;
}

# A decimal integer from 0 to 2**64-1, compared as text so that no value
# goes through a floating-point number on the way.
sub _is_uint64_text {
    my ($text) = @_;
    return 0 unless defined $text && !ref $text && $text =~ /\A[0-9]+\z/;
    (my $digits = $text) =~ s/\A0+(?=.)//;
    return length $digits < length $MAX_SEED
        || (length $digits == length $MAX_SEED && $digits le $MAX_SEED);
}

sub seed  { $_[0]{seed} }
sub count { $_[0]{count} }
sub index { $_[0]{index} }

sub next {
    my ($self) = @_;
    return if $self->{index} >= $self->{count};
    my $index = $self->{index}++;

    # Two draws: the second is below the first, so low-numbered clients
    # come back more often.
    my $client = $self->{clients}[ _below($self, _below($self, CLIENTS) + 1) ];

    my %event;
    my $site  = $self->_connection(\%event, $client);
    $self->_request(\%event, $client, $site);
    my $group = $self->_identity(\%event, $client);
    $self->_anomalies(\%event, $group);
    $self->_mitigation(\%event, $client, $group);
    $self->_verification(\%event, $client, $site, $group);
    $self->_ids_and_times(\%event, $client, $index);
    return \%event;
}

# ---- the random numbers ------------------------------------------------------
#
# splitmix64: the state is a 64-bit integer, the seed at the start. Each
# output adds 0x9E3779B97F4A7C15 to the state (modulo 2**64) and returns the
# new state mixed:
#     z = state
#     z = (z xor (z >> 30)) * 0xBF58476D1CE4E5B9   modulo 2**64
#     z = (z xor (z >> 27)) * 0x94D049BB133111EB   modulo 2**64
#     output = z xor (z >> 31)
# Additions and products are made under `use integer`, which wraps modulo
# 2**64 (perl is built with -fwrapv); the shifts and xors are made outside
# it, where perl treats the operands as unsigned, so the shifts are logical
# and the output is an unsigned integer.

# The constants need 64-bit integers, and so does everything else here.
BEGIN {
    die "quillon_event_log::Sample needs a perl with 64-bit integers\n"
        unless ~0 == 18446744073709551615;
}
{
    no warnings 'portable';    # 64-bit literals, safe after the check above
    use constant {
        GAMMA => 0x9E3779B97F4A7C15,
        MIX1  => 0xBF58476D1CE4E5B9,
        MIX2  => 0x94D049BB133111EB,
    };
}

# The next output for the state in $_[0], which it advances (the argument
# is aliased, so the caller's variable or hash element changes).
sub _splitmix64 {
    my $z;
    { use integer; $z = $_[0] += GAMMA; }
    $z ^= $z >> 30;
    { use integer; $z *= MIX1; }
    $z ^= $z >> 27;
    { use integer; $z *= MIX2; }
    return $z ^ ($z >> 31);
}

sub prng_outputs {
    my ($class, $seed, $n) = @_;
    Carp::croak(qq{$class->prng_outputs: seed must be an integer from 0 to $MAX_SEED, not "}
                . (defined $seed ? $seed : 'undef') . '"')
        unless _is_uint64_text($seed);
    Carp::croak(qq{$class->prng_outputs: the number of outputs must be an integer from 0 to 999999999})
        unless defined $n && !ref $n && $n =~ /\A[0-9]{1,9}\z/;
    my $state = $seed + 0;
    return map { my $z = _splitmix64($state); "$z" } 1 .. $n;
}

# The draws of an event come in two sizes, both from the one state:
#   - 64-bit values (ids, hex strings, random bytes) are outputs taken as
#     they are, when they are needed;
#   - small numbers (which client, which path, which action ...) are taken
#     from a buffer of 16-bit draws. When it is empty, it is refilled with
#     the next DRAW_BLOCK outputs, each cut into four 16-bit draws, lowest
#     bits first. A small number below $n is the next draw modulo $n; the
#     bias (at most $n/65536) does not matter for samples.
# Most draws are small, and the buffer makes each of them cost a shift
# instead of a whole output: that is most of the generator's speed.
use constant DRAW_BLOCK => 64;

sub _refill {
    my ($self) = @_;
    my $draws = $self->{draws};
    for (1 .. DRAW_BLOCK) {
        my $z = _splitmix64($self->{state});
        push @$draws, $z & 0xFFFF, ($z >> 16) & 0xFFFF, ($z >> 32) & 0xFFFF, $z >> 48;
    }
    return;
}

# A number from 0 to $_[1]-1 ($_[1] at most 65536).
sub _below {
    my $draws = $_[0]{draws};
    @$draws or $_[0]->_refill;
    return shift(@$draws) % $_[1];
}

# An element of the array $_[1] (of at most 65536 elements).
sub _pick {
    my $draws = $_[0]{draws};
    @$draws or $_[0]->_refill;
    return $_[1][ shift(@$draws) % @{ $_[1] } ];
}

# The next output, an unsigned 64-bit integer.
sub _rand64 { _splitmix64($_[0]{state}) }

# A uint64 as its decimal digits, the hash form of uint64 fields.
sub _uint64_text { my $z = _splitmix64($_[0]{state}); "$z" }

# 32 hexadecimal digits, for cookies, tokens and such.
sub _hex32 { sprintf '%016x%016x', _rand64($_[0]), _rand64($_[0]) }

# ---- clients -----------------------------------------------------------------

# One client: who it is (browser, mobile application or bot), where it
# comes from and what its requests look like apart from the target. Header
# lines that do not change between its requests are made here once.
sub _client {
    my ($self) = @_;
    my %c;
    my $kind = _below($self, 100);
    if ($kind < 45) {
        $c{group} = _below($self, 10) ? 'browser' : 'suspicious';
        $c{agent} = _pick($self, \@BROWSER_AGENTS);
        $c{style} = 'browser';
    }
    elsif ($kind < 53) {
        my $app = _pick($self, \@APPS);
        my (undef, $product, $os, $versions) = @$app;
        $c{group}   = 'app';
        $c{app}     = $app;
        $c{version} = _pick($self, $versions);
        $c{agent}   = "$product/$c{version} (" . _pick($self, $OS_VERSIONS{$os}) . ')';
        $c{style}   = 'app';
        $c{integrity} = _below($self, 100);    # under 8: emulator, rooted or debugger
    }
    else {
        my $bot = _pick($self, \@BOTS);
        my $behaviour = $BEHAVIOUR_OF_CATEGORY{ $bot->[2] };
        $c{group} = $bot->[3] eq 'Trusted Bot' ? 'trusted'
                  : $bot->[3] eq 'Malicious Bot' ? 'malicious' : 'untrusted';
        $c{bot}   = $bot;
        $c{agent} = $bot->[4];
        $c{style} = $behaviour->{headers};
        $c{paths} = $behaviour->{paths};
    }

    $c{country} = _pick($self, \@COUNTRIES);
    if ($c{paths} && $c{paths} eq 'monitor' && _below($self, 2)) {
        # Internal monitoring, from the route domain of the monitoring network.
        $c{ip} = sprintf '10.20.%d.%d%%2', _below($self, 256), 1 + _below($self, 254);
    }
    elsif (_below($self, 4)) {
        $c{ip} = join '.', _pick($self, \@IPV4_FIRST_OCTETS), _below($self, 256), _below($self, 256),
                           1 + _below($self, 254);
    }
    else {
        # No zero group, so the text is already the canonical one.
        $c{ip} = sprintf '%s:%x:%x:%x:%x:%x:%x', _pick($self, \@IPV6_PREFIXES),
                         map { 1 + _below($self, 65535) } 1 .. 6;
        $c{v6} = 1;
    }

    $c{http2}      = $c{style} eq 'browser' ? _below($self, 10) < 7 : _below($self, 10) < 1;
    $c{session_id} = _uint64_text($self);
    my $runs_js    = $c{style} eq 'browser' || $c{style} eq 'app';
    $c{device_id}  = _uint64_text($self) if $runs_js && _below($self, 10);

    my $headers = "User-Agent: $c{agent}\r\n" . $ACCEPT_OF_STYLE{ $c{style} };
    if ($c{style} eq 'browser') {
        my $language = $LANGUAGE_OF_COUNTRY{ $c{country} };
        $headers .= "Accept-Language: $language\r\n" if _below($self, 20);
        $headers .= "Accept-Encoding: gzip, deflate, br\r\n";
        $headers .= "Cookie: sid=" . _hex32($self) . "; consent=1\r\n" if _below($self, 3);
        $headers .= "Upgrade-Insecure-Requests: 1\r\n";
    }
    elsif ($c{style} eq 'crawler') {
        $headers .= "Accept-Encoding: gzip, deflate\r\n";
    }
    elsif ($c{style} eq 'app') {
        $headers .= "Accept-Encoding: gzip\r\n"
                 .  "Authorization: Bearer " . _hex32($self) . "\r\n"
                 .  "X-App-Version: $c{version}\r\n";
    }
    $c{headers} = $headers;
    return \%c;
}

# ---- the field groups of an event ----------------------------------------------

# Where the request went: addresses, ports, virtual server, host. Returns
# the site.
sub _connection {
    my ($self, $e, $c) = @_;
    my $site = $c->{app} ? \%MOBILE_SITE : _pick($self, \@SITE_CHOICES);
    $e->{virtual_server_name} = $site->{name};
    $e->{profile_name}        = $site->{profile};
    $e->{client_ip}           = $c->{ip};
    $e->{dest_ip}             = $c->{v6} ? $site->{ip6} : $site->{ip4};
    $e->{src_port}            = 1024 + _below($self, 64512);
    $e->{dest_port}           = $site->{port};
    $e->{is_https_request}    = $site->{https};
    $e->{host}                = _pick($self, $site->{hosts});
    $e->{country_code}        = $c->{country};
    $e->{slot_number}         = 1 + _below($self, 4);
    return $site;
}

# Makers of query strings (without the "?").
my %QUERY_MAKERS = (
    search   => sub { 'q=' . _pick($_[0], \@WORDS) . '&page=' . (1 + _below($_[0], 20)) },
    product  => sub { 'ref=' . _pick($_[0], \@REFERRERS) . '&variant=' . (1 + _below($_[0], 12)) },
    tracking => sub {
        'utm_source=' . _pick($_[0], \@UTM_SOURCES) . '&utm_medium=' . _pick($_[0], \@UTM_MEDIUMS)
        . '&utm_campaign=winter' . (2026 - _below($_[0], 2))
    },
    page     => sub { 'page=' . (1 + _below($_[0], 40)) . '&sort=' . _pick($_[0], \@SORTS) },
    session  => sub { sprintf 'session=%016x&step=%d', _rand64($_[0]), 1 + _below($_[0], 4) },
    token    => sub {
        'state=' . _hex32($_[0]) . '&redirect_uri=https%3A%2F%2Fshop.example.com%2Fcallback'
    },
    injection => sub { 'id=' . (1000 + _below($_[0], 9000)) . "%27%20OR%20%271%27%3D%271" },
    script   => sub { 'q=%3Cscript%3Ealert(' . _below($_[0], 100) . ')%3C%2Fscript%3E' },
);
my %TAIL_MAKERS = (
    id    => sub { 1000 + _rand64($_[0]) % 99000 },
    slug  => sub { _pick($_[0], \@SLUGS) },
    asset => sub { sprintf '%08x.js', _rand64($_[0]) & 0xFFFFFFFF },
);

# What was asked: method, URI and the raw request with its headers and body.
sub _request {
    my ($self, $e, $c, $site) = @_;
    my $set = $c->{paths} && _below($self, 10) < 6 ? $c->{paths} : $site->{paths};
    my $target = _pick($self, $PATHS{$set});

    my $uri = $target->{path};
    $uri .= $TAIL_MAKERS{ $target->{tail} }->($self) if $target->{tail};
    $uri .= '?' . $QUERY_MAKERS{ $target->{query} }->($self) if $target->{query};
    my $method   = $target->{method};
    my $protocol = $site->{https} && $c->{http2} ? 'HTTP/2' : 'HTTP/1.1';

    my $request = "$method $uri $protocol\r\nHost: $e->{host}\r\n$c->{headers}";
    if ($c->{style} eq 'browser' && _below($self, 2)) {
        $request .= "Referer: https://$e->{host}/\r\n";
    }
    my $body = '';
    if (my $kind = $target->{body}) {
        (my $type, $body) = $self->_body($kind);
        $request .= "Content-Type: $type\r\n";
        $request .= "Content-Encoding: gzip\r\n" if $kind eq 'binary';
        $request .= 'Content-Length: ' . length($body) . "\r\n";
    }
    $request .= "Connection: keep-alive\r\n" if $protocol eq 'HTTP/1.1';
    $request .= "\r\n$body";

    $e->{http_method}        = $method;
    $e->{request_uri}        = $uri;
    $e->{http_request}       = $request;
    $e->{http_protocol_info} = $protocol;
    if (my $ms = $target->{ms}) {
        @$e{qw(microservice_name microservice_type microservice_matched_wildcard_url)} = @$ms;
        # Most microservices are matched by URL alone.
        $e->{microservice_matched_wildcard_host} = $e->{host} unless _below($self, 4);
    }
    return;
}

# A request body of the given kind: (content type, bytes).
sub _body {
    my ($self, $kind) = @_;
    if ($kind eq 'form') {
        return ('application/x-www-form-urlencoded',
                'username=' . _pick($self, \@USERS) . '&password=' . sprintf('%012x', _rand64($self) >> 16));
    }
    if ($kind eq 'json') {
        return ('application/json',
                sprintf '{"sku":%d,"qty":%d,"currency":"EUR"}', 1000 + _below($self, 9000), 1 + _below($self, 5));
    }
    # The gzip header's second byte, 0x8B, cannot start a UTF-8 sequence, so
    # these bodies are never valid UTF-8; the rest are random bytes.
    return ('application/octet-stream',
            "\x1f\x8b\x08\x00" . join '', map { pack 'Q<', _rand64($self) } 1 .. 4 + _below($self, 29));
}

# Who the client is: classification and the bot's or the application's
# fields. Returns the client's group for this request (the keys of the
# group tables above: a browser is "human" in some of its requests).
sub _identity {
    my ($self, $e, $c) = @_;
    my $group = $c->{group};
    if (my $bot = $c->{bot}) {
        @$e{qw(bot_name bot_signature bot_signature_category classification)} = @$bot[0 .. 3];
        if ($group ne 'trusted' && !_below($self, 10)) {
            my $other = _pick($self, \@BOTS);
            $e->{additional_signatures} = $other->[1] if $other != $bot;
        }
    }
    elsif (my $app = $c->{app}) {
        $e->{classification}          = 'Mobile Application';
        $e->{mobile_is_app}           = 1;
        $e->{mobile_app_display_name} = $app->[0];
        $e->{mobile_app_version}      = $c->{version};
        $e->{mobile_os_id}            = $app->[2];
        # The behaviour and device checks come with the SDK's full report,
        # every other request.
        if (_below($self, 2)) {
            $e->{mobile_is_human_behaviour}      = _pick($self, \@HUMAN_BEHAVIOUR);
            $e->{mobile_app_emulation_mode}      = $c->{integrity} < 3 ? 'yes' : 'no';
            $e->{mobile_app_jailbroken_rooted}   = $c->{integrity} >= 3 && $c->{integrity} < 6 ? 'yes' : 'no';
            $e->{mobile_debugger_enabled_device} = $c->{integrity} >= 6 && $c->{integrity} < 8 ? 'yes' : 'no';
        }
        $e->{is_update_request} = 1 unless _below($self, 20);
        if ($app->[2] eq 'Android' && !_below($self, 4)) {
            $e->{mobile_imei} = sprintf '35%06d%07d', _below($self, 65536) * 15, _rand64($self) % 10_000_000;
        }
    }
    elsif ($group eq 'suspicious') {
        $e->{classification} = 'Suspicious Browser';
    }
    else {
        # A browser is "Human" when the page saw mouse and keyboard activity.
        $group = 'human' unless _below($self, 4);
        $e->{classification} = $group eq 'human' ? 'Human' : 'Browser';
    }
    $e->{reason} = _pick($self, $REASON_OF_GROUP{$group});
    return $group;
}

# Anomalies (distinct) and their categories (distinct, in order of first
# appearance); the first category is the primary one.
sub _anomalies {
    my ($self, $e, $group) = @_;
    my $count = _pick($self, $ANOMALY_COUNTS_OF_GROUP{$group}) or return;
    my $table = $ANOMALIES_OF_GROUP{$group eq 'human' ? 'browser' : $group};
    my (@anomalies, @categories, %seen_anomaly, %seen_category);
    while (@anomalies < $count) {
        my ($anomaly, $category) = @{ _pick($self, $table) };
        next if $seen_anomaly{$anomaly}++;
        push @anomalies, $anomaly;
        push @categories, $category unless $seen_category{$category}++;
    }
    $e->{anomalies}                = \@anomalies;
    $e->{anomaly_categories}       = \@categories;
    $e->{primary_anomaly_category} = $categories[0];
    return;
}

# What was configured and what was done, with reasons; now and then they differ.
sub _mitigation {
    my ($self, $e, $c, $group) = @_;
    my ($configured, $configured_reason) = @{ _pick($self, $POLICIES_OF_GROUP{$group}) };
    my ($actual, $actual_reason) = ($configured, $configured_reason);
    if (_below($self, 100) < OVERRIDE_PERCENT) {
        ($actual, $actual_reason) = @{ _pick($self, $OVERRIDES_OF_ACTION{$configured}) };
    }
    $e->{configured_mitigation_action}        = $configured;
    $e->{configured_mitigation_action_reason} = $configured_reason;
    $e->{actual_mitigation_action}            = $actual;
    $e->{actual_mitigation_action_reason}     = $actual_reason;
    $e->{request_status} = $REQUEST_STATUS_OF_ACTION{$actual};
    $e->{enforced_by}    = $actual eq 'rate-limit' ? 'dos-protection'
                         : $c->{app}               ? 'mobile-sdk'
                         :                           'bot-defense';
    if ($actual eq 'captcha') {
        my $status = _pick($self, \@CAPTCHA_STATUSES);
        $e->{captcha_status} = $status;
        $e->{challenge_failure_reason} = 'CAPTCHA answer incorrect' if $status eq 'incorrect';
    }
    return;
}

# Browser verification and the device id.
sub _verification {
    my ($self, $e, $c, $site, $group) = @_;
    my $configured = $site->{verify};
    if ($configured ne 'none') {
        my ($actual, $reason, $status);
        if ($group eq 'trusted') {
            ($actual, $reason, $status) = ('none', 'Trusted bot exempt from verification', 'not_verified');
        }
        elsif ($c->{style} ne 'browser') {
            ($actual, $reason, $status) = ($configured, 'No valid verification cookie', 'not_verified');
        }
        elsif ($group eq 'suspicious' || $c->{bot}) {
            my $failed = _below($self, 2);
            ($actual, $reason, $status) = ($configured, 'No valid verification cookie',
                                           $failed ? 'failed' : 'verified');
            $e->{challenge_failure_reason} ||= _pick($self, \@CHALLENGE_FAILURES) if $failed;
        }
        elsif (_below($self, 10) < 7) {
            ($actual, $reason, $status) = ('none', 'Valid verification cookie', 'verified');
        }
        else {
            ($actual, $reason, $status) = ($configured, 'No valid verification cookie', 'verified');
        }
        $e->{browser_configured_verification_action} = $configured;
        $e->{browser_actual_verification_action}     = $actual;
        $e->{actual_verification_action_reason}      = $reason;
        $e->{browser_verification_status}            = $status;
    }

    if (defined $c->{device_id}) {
        $e->{device_id} = $c->{device_id};
        my $mismatch = $group eq 'suspicious' && !_below($self, 5);
        $e->{device_id_status} = $mismatch ? 'mismatch' : 'valid';
        $e->{device_id_action} = $mismatch ? 'captcha' : 'none';
    }
    else {
        $e->{device_id_status} = 'none';
    }
    return;
}

# Session and support ids and the times: the request times rise evenly over
# the span, the same for every seed.
sub _ids_and_times {
    my ($self, $e, $c, $index) = @_;
    my $time;
    { use integer; $time = START + $index * SPAN / $self->{count}; }
    $e->{request_time} = $time;
    $e->{session_id}   = $c->{session_id};
    $e->{support_id}   = _uint64_text($self);
    if (_below($self, 10) < 2) {
        $e->{previous_support_id}   = _uint64_text($self);
        $e->{previous_request_time} = $time - 1 - _below($self, 900);
        @$e{qw(previous_initiated_action previous_initiated_action_status)} = @{ _pick($self, \@PREVIOUS_ACTIONS) };
    }
    return;
}

1;
__END__

=head1 NAME

quillon_event_log::Sample - deterministic synthetic bot-mitigation event records

=head1 SYNOPSIS

  use quillon_event_log::Sample;
  use quillon_event_log::Codec;

  my $gen   = quillon_event_log::Sample->new(seed => 42, count => 100_000);
  my $codec = quillon_event_log::Codec->new(addresses => 'text');
  while (my $event = $gen->next) {
      print $event->{classification}, ' ', $event->{request_uri}, "\n";
      my $bytes = $codec->encode($event);     # wire bytes of the record
  }

  printf "seed %s, %d of %d events made\n", $gen->seed, $gen->index, $gen->count;

=head1 DESCRIPTION

This module makes event records that look like the traffic a
bot-mitigation function sees in a few hours on a handful of web sites:
browsers, people, mobile applications, search engines, scripts, scrapers
and scanners, with what was configured and what was done about each
request. It is meant for benchmarks (millions of records), demonstrations
and tests of tools that read records.

The records are hashes in the hash form of L<quillon_event_log::Codec>
with the options C<< characters => 0 >> and C<< addresses => 'text' >>:
string fields are byte strings (text is UTF-8 encoded), uint64 fields are
strings of decimal digits, flags are 1 or 0, C<client_ip> and C<dest_ip> are
address texts, C<anomalies> and C<anomaly_categories> are array references,
and absent fields are absent keys. Every record is accepted by
C<< quillon_event_log::Codec->new(addresses => 'text')->encode >>.

The output depends on the seed and the count only, never on the machine,
the perl, the locale, the time, hash order or perl's C<rand>: the same seed
and count give the same records everywhere (see L</STABILITY>).

=head1 WHAT THE RECORDS LOOK LIKE

Each event comes from one of 2048 clients that the generator invents when
it is made; low-numbered clients come back more often, so addresses, device
ids and agents repeat the way they do in real traffic. A client is

=over 4

=item *

a browser (about 45% of the clients; a tenth of them behave suspiciously):
classification C<Browser>, C<Human> (a quarter of the requests) or
C<Suspicious Browser>, browser headers with C<Accept-Language> matching the
client's country, often a cookie and a C<Referer>, a device id for most;

=item *

a mobile application (about 8%): classification C<Mobile Application>,
C<mobile_is_app>, the application's name (some names are not ASCII, so
there is multi-byte UTF-8 text), version and operating system, now and then
the device checks (emulator, rooted, debugger), C<is_update_request> and an
IMEI; it talks to its own API server only;

=item *

a bot (the rest), one of 40 well-known crawlers, monitors, HTTP libraries,
scrapers, headless browsers, scanners and credential-stuffing tools, with
C<bot_name>, C<bot_signature>, C<bot_signature_category>, the
classification C<Trusted Bot>, C<Untrusted Bot> or C<Malicious Bot>,
sometimes C<additional_signatures>, and its own habits: crawlers ask for
F</robots.txt>, monitors for F</health>, scanners for F</.env> and
injection strings, credential stuffers post to the login forms.

=back

Three clients in four have an IPv4 address, the others IPv6 (written in the
canonical text form); some monitors are internal, with an address in route
domain 2 (C<10.20.x.y%2>). Each request goes to one of seven virtual
servers with their own profile names, destination addresses (some in route
domains 2 and 3, C<%N>), port (443, 80 or 8443) and host names. The fields
of a record, in groups:

=over 4

=item connection

C<virtual_server_name>, C<profile_name>, C<client_ip>, C<dest_ip>,
C<src_port>, C<dest_port>, C<is_https_request>, C<host>, C<country_code>,
C<slot_number> (1 to 4).

=item request

C<http_method> (C<GET>, C<POST>, C<PUT>, C<HEAD>, C<OPTIONS>),
C<request_uri> (often with a query string), C<http_protocol_info>
(C<HTTP/1.1> or C<HTTP/2>) and C<http_request>, the raw request: request
line, C<Host>, the client's headers and, for C<POST> and C<PUT>, a body with
C<Content-Type> and a correct C<Content-Length>. Bodies are forms, JSON, or
(about 3% of all requests) gzip-compressed binary data, which is never
valid UTF-8. Requests to API paths carry C<microservice_name>,
C<microservice_type>, C<microservice_matched_wildcard_url> and sometimes
C<microservice_matched_wildcard_host>.

=item identity

C<classification>, C<reason>, and the bot or mobile fields above.

=item anomalies

0 to 4 distinct C<anomalies> fitting the client (none for most browsers and
trusted bots, several for scanners), their distinct C<anomaly_categories>
in order of first appearance, and the first of them as
C<primary_anomaly_category>. The keys are absent when there are none.

=item mitigation

C<configured_mitigation_action> and C<actual_mitigation_action> (C<none>,
C<alarm>, C<block>, C<tcp-rst>, C<captcha>, C<challenge>, C<rate-limit>,
C<honeypot>) with their reasons; in about 15% of the records the actual
action differs from the configured one, with its own reason (transparent
mode, allow and deny lists, a valid cookie, ...). C<request_status>
follows the actual action, C<enforced_by> names the part that acted, and
C<captcha_status> (and C<challenge_failure_reason> when the answer was
wrong) appears when the action was a CAPTCHA.

=item verification

On the sites that verify browsers: C<browser_configured_verification_action>,
C<browser_actual_verification_action>, C<actual_verification_action_reason>,
C<browser_verification_status>, and C<challenge_failure_reason> when a
challenge failed. C<device_id_status> always, C<device_id> and
C<device_id_action> when the client has a device id.

=item ids and times

C<session_id> (the client's), C<support_id> (new for each request),
C<request_time>, and for one request in five C<previous_support_id>,
C<previous_request_time> (up to 15 minutes earlier),
C<previous_initiated_action> and C<previous_initiated_action_status>.

=back

A record has 26 to about 50 fields, 35 on average, and encodes to about
450 to 1400 bytes, 820 on average.

The request times rise evenly over six hours from 2026-11-20T00:00:00Z
(1763596800): event I<i> of I<count> has C<request_time> C<1763596800 +
int(i * 21600 / count)>, so any count spans the same six hours. Several
events share a second when the count is above 21600.

=head1 STABILITY

For a given seed and count, the records are the same on every machine and
perl with 64-bit integers: the generator has its own random numbers
(L</THE RANDOM NUMBERS>), reads no clock, locale or environment, and never
depends on the order of a hash. The count changes C<request_time> and
C<previous_request_time> only: the first I<n> records of two generators with
the same seed and different counts are otherwise equal.

The records are made from tables in this module (agents, paths, actions,
...). Changing a table, or the order in which a record's fields draw their
random numbers, changes the records of every seed; such a change is a new
version of the samples and must come with new copies of any sample files
kept elsewhere.

=head1 THE RANDOM NUMBERS

The generator is splitmix64. Its state is a 64-bit unsigned integer, the
seed at the start; each output adds C<0x9E3779B97F4A7C15> to the state
(modulo 2**64) and returns the new state mixed:

  z = state
  z = (z xor (z >> 30)) * 0xBF58476D1CE4E5B9     (modulo 2**64)
  z = (z xor (z >> 27)) * 0x94D049BB133111EB     (modulo 2**64)
  output = z xor (z >> 31)

For seed 1 the first outputs are 10451216379200822465,
13757245211066428519 and 17911839290282890590 (L</prng_outputs>).

The records use the outputs in two ways, in the order the code asks for
them. 64-bit values (ids, hex strings, random body bytes) are single
outputs. Small numbers (which client, path, action, ...) come from a buffer
that, when empty, is refilled with the next 64 outputs, each cut into four
16-bit draws, lowest bits first; a number below I<n> is the next draw
modulo I<n>.

=head1 METHODS

=head2 new

  my $gen = quillon_event_log::Sample->new(seed => 1, count => 1000);

A generator of C<count> records (default 1000, at most 2**48-1) from the
seed C<seed> (default 1; an integer from 0 to 18446744073709551615, given
as a number or as a string of decimal digits). An option given as C<undef>
takes its default. Making a generator invents its clients, which takes
about 20 ms.

=head2 next

  my $event = $gen->next;

The next record, a reference to a new hash (see L</DESCRIPTION>) that the
caller may keep or change. After C<count> records: C<undef> (an empty list
in list context), again on every later call.

=head2 seed, count

  my $seed  = $gen->seed;     # 1
  my $count = $gen->count;    # 1000

The options of the generator, as numbers.

=head2 index

  my $i = $gen->index;

How many records C<next> has returned so far: 0 before the first call,
C<count> at the end. It is also the position (from 0) of the record that
the next call returns.

=head2 prng_outputs

  my @outputs = quillon_event_log::Sample->prng_outputs($seed, $n);

The first C<$n> outputs of the random number generator for C<$seed>, as
strings of decimal digits, from a state of their own (no generator is made
or changed). For checking the generator against other implementations.

=head1 DIAGNOSTICS

Perl adds " at FILE line N." to each.

=over 4

=item quillon_event_log::Sample->new: odd number of arguments

=item quillon_event_log::Sample->new: unknown option "NAME"

=item quillon_event_log::Sample->new: seed must be an integer from 0 to 18446744073709551615, not "VALUE"

=item quillon_event_log::Sample->new: count must be an integer from 0 to 281474976710655, not "VALUE"

=item quillon_event_log::Sample->prng_outputs: seed must be an integer from 0 to 18446744073709551615, not "VALUE"

=item quillon_event_log::Sample->prng_outputs: the number of outputs must be an integer from 0 to 999999999

The class name is the one the method was called on.

=item quillon_event_log::Sample needs a perl with 64-bit integers

When the module is loaded by a perl whose integers are 32 bits wide.

=back

Encoding the records is silent except for the binary request bodies: the
protocol-buffer runtime complains about each string that is not valid
UTF-8 (see L<quillon_event_log::RuntimeLog> to silence and count the
complaints).

=head1 SPEED

About 50,000 records per second made and encoded with
L<quillon_event_log::Codec> (55,000 to 60,000 made only), on the
development machine (perl 5.36, one core).

=head1 SEE ALSO

L<quillon_event_log::Codec> (the hash form and the encoding),
L<quillon_event_log::QuillonEventLog> (the record and its fields),
L<quillon_event_log::RuntimeLog>.

=head1 AUTHOR

The quillon_event_log team.

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
