# Sourced: the sites and URL categories that the measured servers are given,
# and the requests that they get.

# The requests, in turn: "HOST PATH [cached]".
request_mix() {
  cat <<'MIX'
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
MIX
}

small_configuration() {
  cat <<'TOML'
interval = 2
[[site]]
name = "www.shop.example"
  [[site.category]]
  label = "products"
  urls = ["/shop*"]
TOML
}

# fullest_configuration matched|unmatched: every capacity filled. The hosts that
# are asked for are the last names of the last two sites. Unmatched, all 90
# patterns of these have to be found not to match, though they look like the
# URLs; matched, the last pattern of three categories does.
fullest_configuration() {
  awk -v kind="$1" '
    BEGIN {
      split("/shop*/coats*/wool*-coat*-4711*.html*|/css*/s*i*t*e*.css|/js*/s*i*t*e*.js|" \
            "/img*/coat*-47*11*-large*.jpg|/2026*/11*/how*-we*-measure*.html", matching, "|")
      split("host4.site8.example|host5.site8.example|blog.example", names_of_blog, "|")
      split("shop.example|static.shop.example|www.shop.example", names_of_shop, "|")
      print "interval = 2"
      for (s = 0; s < 10; ++s) {
        printf "[[site]]\nname = \"site%d.example\"\nhosts = [", s
        for (h = 1; h <= 6; ++h) {
          name = "host" h ".site" s ".example"
          if (s == 8 && h > 3) name = names_of_blog[h - 3]
          if (s == 9 && h > 3) name = names_of_shop[h - 3]
          printf "%s\"%s\"", (h > 1 ? ", " : ""), name
        }
        print "]"
        for (c = 0; c < 15; ++c) {
          printf "[[site.category]]\nlabel = \"category %d\"\nurls = [", c
          for (u = 0; u < 6; ++u) {
            url = (u % 2 ? "*" : "") "/shop" c "*/coats" u "*/wool*-coat*.html*?page" c "*"
            if (kind == "matched" && u == 5) url = matching[c % 5 + 1]
            printf "%s\"%s\"", (u > 0 ? ", " : ""), url
          }
          print "]"
        }
      }
    }'
}
