#!/usr/bin/env python3
"""Makes www/world.svg, the coast lines behind the points of the time zone page.

Usage: make-map.py <land-50m.json> > www/world.svg

The file with the coast lines is in the npm package world-atlas, which is Natural Earth's public-domain data as
TopoJSON. This gets it:

    npm pack world-atlas
    tar -xzf world-atlas-*.tgz package/land-50m.json

The map is in degrees: x is the longitude, y the latitude with north up (that is, negated). Detail that cannot be seen
at the size of the page is left out, so that the file stays small enough for a device's flash; land-110m.json works as
well and gives a coarser map.
"""

import json
import sys

# Coordinates are written as whole numbers of this many degrees.
GRID = 0.1

# A point is left out when the line without it stays this near to it, in degrees ...
TOLERANCE = 0.12

# ... and an island when both its sides are shorter than this, in degrees.
SMALLEST_ISLAND = 0.25


def decode_arcs(topology):
    """The arcs of a TopoJSON topology as lists of (longitude, latitude) (TopoJSON format, 2.1.4: each position but the
    first is the difference from the one before it)."""
    scale_x, scale_y = topology["transform"]["scale"]
    offset_x, offset_y = topology["transform"]["translate"]
    arcs = []
    for deltas in topology["arcs"]:
        x = y = 0
        arc = []
        for delta_x, delta_y in deltas:
            x += delta_x
            y += delta_y
            arc.append((x * scale_x + offset_x, y * scale_y + offset_y))
        arcs.append(arc)
    return arcs


def ring_points(arcs, indexes):
    """Joins arcs to a ring; a negative index means the arc of its one's complement, backwards."""
    points = []
    for index in indexes:
        arc = arcs[index] if index >= 0 else arcs[~index][::-1]
        points.extend(arc[1:] if points else arc)
    return points


def rings_of(geometry, arcs):
    kind = geometry["type"]
    if kind == "GeometryCollection":
        return [ring for part in geometry["geometries"] for ring in rings_of(part, arcs)]
    polygons = {"Polygon": lambda: [geometry["arcs"]], "MultiPolygon": lambda: geometry["arcs"]}[kind]()
    return [ring_points(arcs, indexes) for polygon in polygons for indexes in polygon]


def unwrap(ring):
    """Takes the jumps out of a ring that crosses the 180th meridian, by letting its longitudes run on beyond 180
    degrees; a ring that goes around the pole is closed along it."""
    points = [ring[0]]
    for longitude, latitude in ring[1:]:
        turns = round((points[-1][0] - longitude) / 360)
        points.append((longitude + turns * 360, latitude))
    first, last = points[0], points[-1]
    if abs(last[0] - first[0]) > 180:
        points += [(last[0], -90.0), (first[0], -90.0), first]
    return points


def shifted_into_view(ring):
    """The ring, and beside it its copy a turn away when a part of it is beyond the edge of the map."""
    copies = [ring]
    for turn in (-360, 360):
        copy = [(longitude + turn, latitude) for longitude, latitude in ring]
        if min(point[0] for point in copy) < 180 and max(point[0] for point in copy) > -180:
            copies.append(copy)
    return copies


def distance_to_segment(point, start, end):
    delta_x, delta_y = end[0] - start[0], end[1] - start[1]
    length_squared = delta_x * delta_x + delta_y * delta_y
    if length_squared == 0:
        position = 0.0
    else:
        position = ((point[0] - start[0]) * delta_x + (point[1] - start[1]) * delta_y) / length_squared
        position = min(1.0, max(0.0, position))
    off_x = start[0] + position * delta_x - point[0]
    off_y = start[1] + position * delta_y - point[1]
    return (off_x * off_x + off_y * off_y) ** 0.5


def simplify(points, tolerance):
    """Leaves points out by the algorithm of Douglas and Peucker, without recursion: a coast has many points."""
    keep = {0, len(points) - 1}
    spans = [(0, len(points) - 1)]
    while spans:
        first, last = spans.pop()
        farthest, distance = None, tolerance
        for index in range(first + 1, last):
            candidate = distance_to_segment(points[index], points[first], points[last])
            if candidate > distance:
                farthest, distance = index, candidate
        if farthest is not None:
            keep.add(farthest)
            spans += [(first, farthest), (farthest, last)]
    return [points[index] for index in sorted(keep)]


def extent(points, axis):
    values = [point[axis] for point in points]
    return max(values) - min(values)


def simplify_ring(ring):
    """A ring starts where it ends, so it is simplified in two halves, parted at the point farthest from its start."""
    start = ring[0]
    middle = max(range(len(ring)), key=lambda index: (ring[index][0] - start[0]) ** 2 + (ring[index][1] - start[1]) ** 2)
    return simplify(ring[: middle + 1], TOLERANCE)[:-1] + simplify(ring[middle:], TOLERANCE)


def path_of(ring):
    """The ring as a closed SVG path in steps of the grid: one absolute point, then differences."""
    points = []
    for longitude, latitude in ring:
        point = (round(longitude / GRID), round(-latitude / GRID))
        if not points or point != points[-1]:
            points.append(point)
    if points[0] == points[-1]:
        points.pop()
    if len(points) < 3:
        return ""
    differences = [(b[0] - a[0], b[1] - a[1]) for a, b in zip(points, points[1:])]
    numbers = [str(number) for difference in differences for number in difference]
    # A minus sign parts two numbers as well as a blank does.
    steps = "".join(text if text.startswith("-") else " " + text for text in numbers).lstrip()
    return "M%d %dl%sz" % (points[0] + (steps,))


def world_svg(topology):
    rings = [unwrap(ring) for ring in rings_of(topology["objects"]["land"], decode_arcs(topology))]
    rings = [copy for ring in rings for copy in shifted_into_view(ring)]
    rings = [ring for ring in rings if max(extent(ring, 0), extent(ring, 1)) >= SMALLEST_ISLAND]
    paths = [path for path in (path_of(simplify_ring(ring)) for ring in rings) if path]
    return """<svg xmlns="http://www.w3.org/2000/svg" viewBox="-180 -90 360 180">
<!-- Coast lines from Natural Earth (naturalearthdata.com), which are in the public domain; made by make-map.py.
     Equirectangular: one unit is one degree, the origin is at 0 degrees north, 0 degrees east. -->
<path id="land" fill-rule="evenodd" transform="scale(%g)" d="%s"/>
</svg>
""" % (GRID, "\n".join(paths))


def main():
    if len(sys.argv) != 2 or sys.argv[1].startswith("-"):
        sys.exit(__doc__.strip())
    with open(sys.argv[1], encoding="utf-8") as file:
        topology = json.load(file)
    sys.stdout.write(world_svg(topology))


if __name__ == "__main__":
    main()
