"""The sites and URL categories of the measured servers, and the requests that they get."""

# In turn: "HOST PATH [cached]".
REQUESTS = """\
www.shop.example /
www.shop.example /css/site.css
www.shop.example /js/site.js
static.shop.example /img/logo.svg
static.shop.example /img/coat-4711-large.jpg
shop.example /shop/coats/wool-coat-4711.html?colour=navy&from=search
www.shop.example /shop/coats/wool-coat-4711.html
www.shop.example /cart
www.shop.example /favicon.ico cached
www.shop.example /old/catalogue/1999.html
blog.example /
blog.example /2026/11/how-we-measure.html
"""

# Sizes of the files that are asked for.
DOCUMENTS = {
    "shop/index.html": 14000,
    "shop/shop/coats/wool-coat-4711.html": 22000,
    "shop/css/site.css": 9000,
    "shop/js/site.js": 34000,
    "shop/img/logo.svg": 2500,
    "shop/img/coat-4711-large.jpg": 48000,
    "shop/favicon.ico": 1100,
    "blog/index.html": 11000,
    "blog/2026/11/how-we-measure.html": 17000,
}

SMALL = """\
interval = 2
[[site]]
name = "www.shop.example"
  [[site.category]]
  label = "products"
  urls = ["/shop*"]
"""

MATCHING = ("/shop*/coats*/wool*-coat*-4711*.html*", "/css*/s*i*t*e*.css", "/js*/s*i*t*e*.js",
            "/img*/coat*-47*11*-large*.jpg", "/2026*/11*/how*-we*-measure*.html")
# The hosts that are asked for are the last names of the last two sites.
LAST_NAMES = {8: ("host4.site8.example", "host5.site8.example", "blog.example"),
              9: ("shop.example", "static.shop.example", "www.shop.example")}


def fullest(matched):
    """Every capacity filled.

    Unmatched, all 90 patterns of a site have to be found not to match, though they look like the
    URLs; matched, the last pattern of three categories does.
    """
    lines = ["interval = 2"]
    for site in range(10):
        hosts = [f"host{number}.site{site}.example" for number in range(1, 7)]
        hosts[3:] = LAST_NAMES.get(site, hosts[3:])
        lines += ["[[site]]", f'name = "site{site}.example"', f"hosts = {quoted(hosts)}"]
        for category in range(15):
            urls = [f"{'*' * (url % 2)}/shop{category}*/coats{url}*/wool*-coat*.html*?page{category}*"
                    for url in range(6)]
            if matched:
                urls[5] = MATCHING[category % 5]
            lines += ["[[site.category]]", f'label = "category {category}"', f"urls = {quoted(urls)}"]
    return "\n".join(lines) + "\n"


def quoted(names):
    return "[" + ", ".join(f'"{name}"' for name in names) + "]"
