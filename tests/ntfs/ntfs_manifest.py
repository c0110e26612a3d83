#!/usr/bin/python3
"""Reads NTFS images with libfsntfs (an NTFS reader independent of
libntfs-3g) and prints, for each image given, one line per file or
directory: path, size, attributes and the SHA-256 of every data stream. Then
checks the allocation: no cluster owned by two streams, and every owned
cluster marked used in $Bitmap; any breach is printed as a line starting with
"PROBLEM". Each image's lines end with a line "--- end"."""
import hashlib
import sys

import pyfsntfs

METAFILE_LIMIT = 24  # records below this are the file system's own (and the root)


def digest(stream):
    h = hashlib.sha256()
    size = stream.get_size()
    stream.seek_offset(0, 0)
    while size > 0:
        chunk = stream.read_buffer(min(size, 1 << 20))
        if not chunk:
            break
        h.update(chunk)
        size -= len(chunk)
    return h.hexdigest()


def extents(entry):
    for i in range(entry.get_number_of_extents()):
        offset, size, flags = entry.get_extent(i)
        if flags & 1:  # sparse
            continue
        yield offset, size


def manifest(image):
    volume = pyfsntfs.volume()
    try:
        volume.open(image)
    except IOError as error:
        return ["PROBLEM cannot read the volume: %s" % error]
    cluster = volume.get_cluster_block_size()
    lines, owners, problems = [], {}, []

    def walk(directory, prefix):
        seen = set()
        for entry in directory.sub_file_entries:
            ref = entry.get_file_reference() & 0xFFFFFFFFFFFF
            name = entry.get_name()
            if ref < METAFILE_LIMIT or (name, ref) in seen:
                continue
            seen.add((name, ref))
            path = prefix + "\\" + name
            attrs = entry.get_file_attribute_flags()
            if entry.has_directory_entries_index():
                lines.append("%s\tdir\t%#x" % (path, attrs & 0xFFFF))
                if not attrs & 0x400:
                    walk(entry, path)
                continue
            streams = [digest(entry)] if entry.has_default_data_stream() else []
            for ads in entry.alternate_data_streams:
                streams.append(ads.get_name() + "=" + digest(ads))
            lines.append("%s\t%d\t%#x\t%s" % (path, entry.get_size(), attrs & 0xFFFF, ",".join(streams)))
            for offset, size in extents(entry):
                for lcn in range(offset // cluster, (offset + size + cluster - 1) // cluster):
                    if lcn in owners and owners[lcn] != ref:
                        problems.append("PROBLEM cluster %d owned by records %d and %d" % (lcn, owners[lcn], ref))
                    owners[lcn] = ref

    try:
        walk(volume.get_root_directory(), "")
        bitmap_entry = volume.get_file_entry(6)
        bitmap = bitmap_entry.read_buffer(bitmap_entry.get_size())
    except (IOError, OSError) as error:
        return sorted(lines) + problems + ["PROBLEM cannot read the volume: %s" % error]
    for lcn in sorted(owners):
        if not bitmap[lcn // 8] >> (lcn % 8) & 1:
            problems.append("PROBLEM cluster %d of record %d is free in $Bitmap" % (lcn, owners[lcn]))
            break
    volume.close()
    return sorted(lines) + problems


def main():
    for image in sys.argv[1:]:
        for line in manifest(image):
            print(line)
        print("--- end")


if __name__ == "__main__":
    main()
