# Writes an archive of SIZE random bytes in the client's chunked
# ChaCha20-Poly1305 layout (see client/domain/encrypted_archive.hpp) and
# prints the SHA-256 of the plaintext.   usage: encrypted_archive.py OUT KEY_HEX SIZE
import hashlib, os, struct, sys
from cryptography.hazmat.primitives.ciphers.aead import ChaCha20Poly1305

out, key, size = sys.argv[1], bytes.fromhex(sys.argv[2]), int(sys.argv[3])
aead, base, plain = ChaCha20Poly1305(key), os.urandom(12), hashlib.sha256()
head = b"zorvi-chacha20-poly1305-v1".ljust(32, b"\0") + struct.pack(">Q", size) + base + bytes(28)
with open(out, "wb") as f:
    f.write(head + aead.encrypt(base, b"", head))
    for index, start in enumerate(range(0, size, 65536), 1):
        chunk = os.urandom(min(65536, size - start))
        plain.update(chunk)
        nonce = base[:4] + (int.from_bytes(base[4:], "big") ^ index).to_bytes(8, "big")
        f.write(aead.encrypt(nonce, chunk, head))
print(plain.hexdigest())
