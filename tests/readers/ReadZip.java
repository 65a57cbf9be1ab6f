import java.io.BufferedInputStream;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.Collections;
import java.util.zip.CRC32;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;
import java.util.zip.ZipInputStream;

/** Prints size and CRC-32 of every entry's data, which must be those of the archive, and its name. */
class ReadZip {
    private static final byte[] chunk = new byte[1 << 20];
    private static final PrintStream out = new PrintStream(System.out, false, StandardCharsets.UTF_8);

    private static void show(ZipEntry entry, InputStream data) throws IOException {
        CRC32 crc = new CRC32();
        long size = 0;
        for (int count; (count = data.read(chunk)) > 0; size += count) {
            crc.update(chunk, 0, count);
        }
        if (entry.getSize() >= 0 && (entry.getSize() != size || entry.getCrc() != crc.getValue())) {
            throw new IOException("entry differs from its header: " + entry.getName());
        }
        out.printf("%d %08x %s%n", size, crc.getValue(), entry.getName());
    }

    public static void main(String[] args) throws IOException {
        if (args[0].equals("file")) {
            try (ZipFile file = new ZipFile(args[1])) {
                for (ZipEntry entry : Collections.list(file.entries())) {
                    show(entry, file.getInputStream(entry));
                }
            }
        } else {
            InputStream bytes = new BufferedInputStream(new FileInputStream(args[1]));
            try (ZipInputStream stream = new ZipInputStream(bytes)) {
                for (ZipEntry entry; (entry = stream.getNextEntry()) != null;) {
                    show(entry, stream);
                }
            }
        }
        out.flush();
    }
}
