"""The picture at the head of performance.md: how long a unit waits for its boot images."""

from html import escape

from targets import ONE_CORE, OWN

BOOT_MIB = 32
BOOT_WORKS = (("512", "plain requests, blocks of 512 bytes"), ("1428", "requests with blksize, blocks of 1428 bytes"))
WIDTH, LEFT, LABEL_WIDTH, FIGURE_WIDTH, BAR_HEIGHT = 700, 16, 118, 70, 24
OWN_COLOUR, PEER_COLOUR = "#1259a8", "#b9b3a6"


def boot_seconds(result, server, work):
    return BOOT_MIB / result.speed(server, work, ONE_CORE)


def text_at(x, y, content, size, extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" {extra}>{escape(content)}</text>'


def bar(server, seconds, scale, y):
    own = server == OWN
    start, middle, weight = LEFT + LABEL_WIDTH, y + BAR_HEIGHT / 2 + 5, 'font-weight="bold"' if own else ""
    return [
        text_at(start - 8, middle, "this program" if own else server, 15, f'text-anchor="end" {weight}'),
        f'<rect x="{start}" y="{y + 2}" width="{seconds * scale:.1f}" height="{BAR_HEIGHT - 4}" '
        f'fill="{OWN_COLOUR if own else PEER_COLOUR}"/>',
        text_at(start + seconds * scale + 6, middle, f"{seconds:.2f} s", 15, weight),
    ]


def draw(result):
    """SVG, to be read at a width of 700."""
    servers = [OWN] + result.peers
    longest = max(boot_seconds(result, server, work) for server in servers for work, _ in BOOT_WORKS)
    scale = (WIDTH - 2 * LEFT - LABEL_WIDTH - FIGURE_WIDTH) / longest
    parts = [text_at(LEFT, 28, f"What a unit waits for {BOOT_MIB} MiB of boot images", 20, 'font-weight="bold"'),
             text_at(LEFT, 50, "Seconds, less is better; the time on the wire comes on top.", 15, 'fill="#555"')]
    y = 66
    for work, title in BOOT_WORKS:
        parts.append(text_at(LEFT, y + 18, title, 15, 'font-style="italic"'))
        y += 26
        for server in servers:
            parts += bar(server, boot_seconds(result, server, work), scale, y)
            y += BAR_HEIGHT
        y += 16
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {y}" width="{WIDTH}" '
                      f'height="{y}" font-family="DejaVu Sans, Verdana, sans-serif" fill="#222">',
                      f'<rect width="{WIDTH}" height="{y}" fill="white"/>'] + parts + ["</svg>\n"])


def sentence(result):
    """What the picture says, in words. The wire's own time is counted for the images' bytes alone."""
    here = f"{boot_seconds(result, OWN, '1428'):.2f} s for this program"
    if result.peers:
        best = min(result.peers, key=lambda peer: boot_seconds(result, peer, "1428"))
        here += f", and {boot_seconds(result, best, '1428'):.2f} s for {best}, the fastest of the others that were tried"
    wire = BOOT_MIB * (1 << 20) * 8 / 100e6
    return (f"On the machine below, a unit that loads {BOOT_MIB} MiB of boot images in blocks of 1428 bytes waits {here}; the "
            f"wire's own time, at least {wire:.1f} s at 100 Mbit/s, comes on top whatever serves it.")
