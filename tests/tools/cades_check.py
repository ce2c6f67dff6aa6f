#!/usr/bin/python3
"""Takes a CAdES-X Long Type 1 message apart with asn1crypto, independently of
the library: checks every signer's attributes and that each reference's hash
matches a value, and writes what `openssl ts -verify` needs for the two time
stamps of each signer into OUT_DIR (sig-N.bin, tst-N.der, escin-N.bin,
esc-N.der, certs.pem).  Prints "ok" with the count of CRLs and OCSP
responses among the revocation values, or the faults, one per line."""
import subprocess
import sys

from asn1crypto import cms, core, pem, x509

DIGESTS = {"1.2.643.7.1.1.2.2": "md_gost12_256", "1.2.643.7.1.1.2.3": "md_gost12_512",
           "1.2.643.2.2.9": "md_gost94", "1.3.14.3.2.26": "sha1"}
SIGNED = {"1.2.840.113549.1.9.3", "1.2.840.113549.1.9.4", "1.2.840.113549.1.9.5", "1.2.840.113549.1.9.16.2.47"}
TST, CERT_REFS, REV_REFS, CERT_VALUES, REV_VALUES, ESC = (
    "1.2.840.113549.1.9.16.2." + n for n in ("14", "21", "22", "23", "24", "25"))


class OtherHashAlgAndValue(core.Sequence):
    _fields = [("hashAlgorithm", x509.AlgorithmIdentifier), ("hashValue", core.OctetString)]


class OtherHash(core.Choice):
    _alternatives = [("sha1Hash", core.OctetString), ("otherHash", OtherHashAlgAndValue)]


class OtherCertID(core.Sequence):
    _fields = [("otherCertHash", OtherHash), ("issuerSerial", core.Any, {"optional": True})]


class CrlValidatedID(core.Sequence):
    _fields = [("crlHash", OtherHash), ("crlIdentifier", core.Any, {"optional": True})]


class OcspResponsesID(core.Sequence):
    _fields = [("ocspIdentifier", core.Any), ("ocspRepHash", OtherHash, {"optional": True})]


class CrlValidatedIDs(core.SequenceOf):
    _child_spec = CrlValidatedID


class OcspResponsesIDs(core.SequenceOf):
    _child_spec = OcspResponsesID


class AnyValues(core.SequenceOf):
    _child_spec = core.Any


class OtherCertIDs(core.SequenceOf):
    _child_spec = OtherCertID


class CRLListID(core.Sequence):
    _fields = [("crls", CrlValidatedIDs)]


class OcspListID(core.Sequence):
    _fields = [("ocspResponses", OcspResponsesIDs)]


class CrlOcspRef(core.Sequence):
    _fields = [("crlids", CRLListID, {"explicit": 0, "optional": True}),
               ("ocspids", OcspListID, {"explicit": 1, "optional": True}),
               ("otherRev", core.Any, {"explicit": 2, "optional": True})]


class CrlOcspRefs(core.SequenceOf):
    _child_spec = CrlOcspRef


class RevocationValues(core.Sequence):
    _fields = [("crlVals", AnyValues, {"explicit": 0, "optional": True}),
               ("ocspVals", AnyValues, {"explicit": 1, "optional": True}),
               ("otherRevVals", core.Any, {"explicit": 2, "optional": True})]


def present(value):
    return not isinstance(value, core.Void)


def digest(oid, data):
    return subprocess.run(["openssl", "dgst", "-engine", "gost", "-" + DIGESTS[oid], "-binary"], input=data,
                          capture_output=True, check=True).stdout


def check_hash(other_hash, candidates, what, faults):
    if other_hash.name != "otherHash":
        faults.append(what + ": sha1Hash form")
        return
    oid = other_hash.chosen["hashAlgorithm"]["algorithm"].dotted
    value = other_hash.chosen["hashValue"].native
    if not any(digest(oid, c) == value for c in candidates):
        faults.append(what + ": hash matches no value")


def main(message_path, out_dir):
    faults = []
    info = cms.ContentInfo.load(open(message_path, "rb").read())
    signed = info["content"]
    all_certs = []
    kinds = {"crls": 0, "ocsps": 0}
    for n, signer in enumerate(signed["signer_infos"]):
        attrs = {a["type"].dotted: a for a in signer["signed_attrs"]}
        if set(attrs) != SIGNED:
            faults.append("signer %d: signed attributes %s" % (n, sorted(attrs)))
        unsigned = [a["type"].dotted for a in signer["unsigned_attrs"]]
        if sorted(unsigned) != sorted([TST, CERT_REFS, REV_REFS, CERT_VALUES, REV_VALUES, ESC]):
            faults.append("signer %d: unsigned attributes %s" % (n, unsigned))
            continue
        raw = {a["type"].dotted: a for a in signer["unsigned_attrs"]}
        value = lambda oid: raw[oid]["values"][0].dump()
        certs = [c.dump() for c in AnyValues.load(value(CERT_VALUES))]
        all_certs += [c for c in certs if c not in all_certs]
        revocation = RevocationValues.load(value(REV_VALUES))
        crls = [c.dump() for c in revocation["crlVals"]] if present(revocation["crlVals"]) else []
        ocsps = [c.dump() for c in revocation["ocspVals"]] if present(revocation["ocspVals"]) else []
        kinds["crls"] += len(crls)
        kinds["ocsps"] += len(ocsps)

        # signing-certificate-v2 names the signer's certificate.
        sid = signer["sid"].chosen
        own = [c for c in certs if x509.Certificate.load(c).serial_number == sid["serial_number"].native and
               x509.Certificate.load(c).issuer == sid["issuer"]]
        v2 = core.Sequence.load(attrs["1.2.840.113549.1.9.16.2.47"]["values"][0].dump())
        ess_id = v2[0][0]
        alg = x509.AlgorithmIdentifier.load(ess_id[0].dump())["algorithm"].dotted
        if len(own) != 1 or digest(alg, own[0]) != ess_id[1].native:
            faults.append("signer %d: signing-certificate-v2 does not name the signer" % n)

        cert_refs = OtherCertIDs.load(value(CERT_REFS))
        for i, ref in enumerate(cert_refs):
            check_hash(ref["otherCertHash"], certs, "signer %d certificate ref %d" % (n, i), faults)
        rev_refs = CrlOcspRefs.load(value(REV_REFS))
        if len(rev_refs) != len(cert_refs) + 1 or rev_refs[len(rev_refs) - 1].dump() != b"\x30\x00":
            faults.append("signer %d: %d revocation refs for %d certificate refs, anchor's not empty" %
                          (n, len(rev_refs), len(cert_refs)))
        for i in range(len(rev_refs) - 1):
            ref = rev_refs[i]
            if not present(ref["crlids"]) and not present(ref["ocspids"]):
                faults.append("signer %d revocation ref %d empty" % (n, i))
            for c in (ref["crlids"]["crls"] if present(ref["crlids"]) else []):
                check_hash(c["crlHash"], crls, "signer %d crl ref %d" % (n, i), faults)
            for o in (ref["ocspids"]["ocspResponses"] if present(ref["ocspids"]) else []):
                check_hash(o["ocspRepHash"], ocsps, "signer %d ocsp ref %d" % (n, i), faults)

        # What the two time stamps cover.
        signature = signer["signature"].native
        body = lambda oid: raw[oid].contents  # attrType and attrValues, without the outer header
        open("%s/sig-%d.bin" % (out_dir, n), "wb").write(signature)
        open("%s/tst-%d.der" % (out_dir, n), "wb").write(value(TST))
        open("%s/esc-%d.der" % (out_dir, n), "wb").write(value(ESC))
        open("%s/escin-%d.bin" % (out_dir, n), "wb").write(
            signature + body(TST) + body(CERT_REFS) + body(REV_REFS))
    with open(out_dir + "/certs.pem", "wb") as f:
        for c in all_certs:
            f.write(pem.armor("CERTIFICATE", c))
    print("\n".join(faults) if faults else "ok crls=%(crls)d ocsps=%(ocsps)d" % kinds)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
