#!/usr/bin/env python3
# TUF repositories made with python-tuf for tests and benchmarks, and attacks on them:
#   tuf_repository.py DIR build [threshold=N] [roles=N] [targets=N] [consistent=1]
#   tuf_repository.py DIR delegate PARENT NAME paths|prefixes VALUE[,VALUE...] [terminating]
#   tuf_repository.py DIR target PATH SIZE|@FILE [ROLE]    (@FILE: that file's bytes)
#   tuf_repository.py DIR rotate ROLE [KEYS]          (the new threshold is KEYS)
#   tuf_repository.py DIR publish [EXPIRED-ROLE...]
#   tuf_repository.py DIR attack NAME
# Metadata is served from DIR/metadata, targets from DIR/targets; keys and documents
# stay in DIR/state.pickle. Every publish bumps every role but root.
import datetime, hashlib, os, pickle, sys
from cryptography.hazmat.primitives.serialization import load_pem_private_key
from securesystemslib.signer import CryptoSigner
from tuf.api.metadata import DelegatedRole, Delegations, Metadata, MetaFile, Root, Snapshot, TargetFile, Targets, Timestamp

ONLINE = ("root", "snapshot", "timestamp")  # the roles a publish does not treat as targets


def put(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as out:
        out.write(data)


def new_key():
    return CryptoSigner.generate_ed25519().private_bytes


def signer(key):
    return CryptoSigner(load_pem_private_key(key, None))


def expiry(days=30):
    return datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0) + datetime.timedelta(days=days)


def sign(st, role, keys=None, names=None):
    md = st["md"][role]
    md.signatures.clear()
    for key in st["keys"][role] if keys is None else keys:
        md.sign(signer(key), append=True)
    for name in names or [f"{role}.json", f"{md.signed.version}.{role}.json"]:
        put(f"{st['dir']}/metadata/{name}", md.to_bytes())
    return md.to_bytes()


def publish(st, expired=()):
    md = st["md"]
    for role in [r for r in md if r not in ONLINE] + ["snapshot", "timestamp"]:
        md[role].signed.version += 1
        md[role].signed.expires = expiry(-1 if role in expired else 30)
        if role == "snapshot":
            md[role].signed.meta = {f"{r}.json": MetaFile(md[r].signed.version) for r in md if r not in ONLINE}
        if role == "timestamp":
            md[role].signed.snapshot_meta = MetaFile(md["snapshot"].signed.version, len(data), {"sha256": hashlib.sha256(data).hexdigest()})
        data = sign(st, role, names=["timestamp.json"] if role == "timestamp" else None)
    save(st)


def save(st):
    with open(st["dir"] + "/state.pickle", "wb") as out:
        pickle.dump(st, out)


def grant(st, role, count):  # fresh keys for a top role, all of them needed
    st["keys"][role] = [new_key() for _ in range(int(count))]
    for key in st["keys"][role]:
        st["md"]["root"].signed.add_key(signer(key).public_key, role)
    st["md"]["root"].signed.roles[role].threshold = int(count)


def delegate(st, parent, name, kind, values, terminating=""):
    key, owner, values = new_key(), st["md"][parent].signed, values.split(",")
    owner.delegations = owner.delegations or Delegations({}, {})
    owner.delegations.roles[name] = DelegatedRole(name, [], 1, terminating == "terminating", values if kind == "paths" else None, values if kind == "prefixes" else None)
    owner.add_key(signer(key).public_key, name)
    st["keys"][name], st["md"][name] = [key], Metadata(Targets(expires=expiry()))


def add_target(st, path, size, role="targets"):
    local = f"{st['dir']}/targets/{path}"
    size = str(size)
    put(local, open(size[1:], "rb").read() if size.startswith("@") else os.urandom(int(size)))
    info = st["md"][role].signed.targets[path] = TargetFile.from_file(path, local, ["sha256", "sha512"])
    head, tail = os.path.split(local)  # consistent snapshots fetch "dir/<sha256>.<name>"
    os.link(local, f"{head}/{info.hashes['sha256']}.{tail}")


def build(st, threshold="1", roles="0", targets="0", consistent="0"):
    st.update(keys={}, revoked={}, md={"root": Metadata(Root(expires=expiry(), consistent_snapshot=consistent == "1"))})
    st["md"].update({"timestamp": Metadata(Timestamp(expires=expiry())), "snapshot": Metadata(Snapshot(expires=expiry())), "targets": Metadata(Targets(expires=expiry()))})
    for role in ONLINE + ("targets",):
        grant(st, role, threshold)
    sign(st, "root", names=["1.root.json"])
    # The benchmark's layout: roles by path pattern, the targets spread over them.
    for r in range(int(roles)):
        delegate(st, "targets", f"role{r}", "paths", f"set{r}/*")
    for i in range(int(targets)):
        add_target(st, f"set{i % int(roles)}/file{i}.bin" if int(roles) else f"file{i}.bin", 64, f"role{i % int(roles)}" if int(roles) else "targets")
    publish(st)


def rotate(st, role, count="1"):
    root, signers = st["md"]["root"].signed, list(st["keys"]["root"])
    for key in st["keys"][role]:
        root.revoke_key(signer(key).public_key.keyid, role)
    st["revoked"][role] = st["keys"][role]
    grant(st, role, count)
    root.version += 1
    # The outgoing root signs its successor, and so does the successor itself.
    sign(st, "root", signers + (st["keys"]["root"] if role == "root" else []), [f"{root.version}.root.json"])
    save(st) if role == "root" else publish(st)


def attack(st, name):  # the timestamp changes in every attack, signed by the right keys unless told
    md, stamp = st["md"], st["md"]["timestamp"].signed
    if name in ("rollback-targets", "mix-and-match"):
        snap = md["snapshot"].signed
        snap.version += 1
        snap.meta["targets.json"].version -= 1 if name == "rollback-targets" else 0
        snap.meta.update({"other.json": MetaFile(1)} if name == "mix-and-match" else {})
        data = sign(st, "snapshot")
        stamp.snapshot_meta = MetaFile(snap.version, len(data), {"sha256": hashlib.sha256(data).hexdigest()})
        if snap.meta.pop("other.json", None):  # validly signed, but not the snapshot the timestamp names
            sign(st, "snapshot")
    stamp.version += -1 if name == "rollback-timestamp" else 1
    if name == "rollback-snapshot":
        stamp.snapshot_meta = MetaFile(stamp.snapshot_meta.version - 1)
    if name == "freeze":
        stamp.expires = expiry(-1)
    sign(st, "timestamp", st["revoked"].get("timestamp") if name == "revoked-key" else None, ["timestamp.json"])


def main(folder, command, *args):
    if command == "build":
        return build({"dir": folder}, **dict(a.split("=", 1) for a in args))
    with open(folder + "/state.pickle", "rb") as f:
        st = pickle.load(f)
    if command == "publish":
        return publish(st, args)
    {"delegate": delegate, "target": add_target, "rotate": rotate, "attack": attack}[command](st, *args)
    if command in ("delegate", "target"):
        publish(st)


main(*sys.argv[1:])
