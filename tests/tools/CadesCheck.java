// A second reading of CAdES-X Long Type 1 messages, by BouncyCastle: each
// signer's signature, its two time stamps (token signature and what each
// covers), and its references and values as BouncyCastle's ESF types parse
// them.  Usage: java -cp <bc jars> CadesCheck.java MESSAGE [CONTENT]
// Prints "ok N" (N signers) or the faults, one per line; exit 1 on a fault.
import java.nio.file.Files;
import java.nio.file.Path;
import java.io.ByteArrayOutputStream;
import java.security.MessageDigest;
import java.security.Security;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.bouncycastle.asn1.ASN1Encodable;
import org.bouncycastle.asn1.ASN1ObjectIdentifier;
import org.bouncycastle.asn1.ASN1OctetString;
import org.bouncycastle.asn1.cms.Attribute;
import org.bouncycastle.asn1.cms.AttributeTable;
import org.bouncycastle.asn1.esf.CompleteRevocationRefs;
import org.bouncycastle.asn1.esf.RevocationValues;
import org.bouncycastle.asn1.ess.OtherCertID;
import org.bouncycastle.asn1.ASN1Sequence;
import org.bouncycastle.cert.X509CertificateHolder;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.tsp.TimeStampToken;
import org.bouncycastle.util.Store;

public class CadesCheck {
  static final String AA = "1.2.840.113549.1.9.16.2.";
  static final List<String> faults = new ArrayList<>();

  public static void main(String[] args) throws Exception {
    Security.addProvider(new BouncyCastleProvider());
    byte[] message = Files.readAllBytes(Path.of(args[0]));
    CMSSignedData signed = args.length > 1
        ? new CMSSignedData(new CMSProcessableByteArray(Files.readAllBytes(Path.of(args[1]))), message)
        : new CMSSignedData(message);
    int n = 0;
    for (SignerInformation signer : signed.getSignerInfos().getSigners()) {
      String who = "signer " + n++;
      AttributeTable unsigned = signer.getUnsignedAttributes();
      if (unsigned == null) { faults.add(who + ": no unsigned attributes"); continue; }
      // The signer's certificate from certificate-values, as a verifier
      // without the message's certificate set would take it.
      List<X509CertificateHolder> values = new ArrayList<>();
      for (ASN1Encodable c : ASN1Sequence.getInstance(value(unsigned, "23"))) values.add(new X509CertificateHolder(c.toASN1Primitive().getEncoded()));
      X509CertificateHolder own = values.stream().filter(c -> signer.getSID().match(c)).findFirst().orElse(null);
      if (own == null) { faults.add(who + ": signer's certificate not among the values"); continue; }
      if (!signer.verify(new JcaSimpleSignerInfoVerifierBuilder().setProvider("BC").build(own)))
        faults.add(who + ": signature");
      String digest = signer.getDigestAlgOID();
      byte[] signature = signer.getSignature();
      checkToken(who + " signature-time-stamp", value(unsigned, "14"), digest, signature);
      ByteArrayOutputStream input = new ByteArrayOutputStream();
      input.write(signature);
      for (String oid : new String[] {"14", "21", "22"}) {
        Attribute a = unsigned.get(new ASN1ObjectIdentifier(AA + oid));
        input.write(a.getAttrType().getEncoded("DER"));
        input.write(a.getAttrValues().getEncoded("DER"));
      }
      checkToken(who + " escTimeStamp", value(unsigned, "25"), digest, input.toByteArray());
      ASN1Sequence certRefs = ASN1Sequence.getInstance(value(unsigned, "21"));
      for (ASN1Encodable ref : certRefs) OtherCertID.getInstance(ref);
      CompleteRevocationRefs revRefs = CompleteRevocationRefs.getInstance(value(unsigned, "22"));
      if (revRefs.getCrlOcspRefs().length != certRefs.size() + 1)
        faults.add(who + ": " + revRefs.getCrlOcspRefs().length + " revocation refs for " + certRefs.size() + " certificate refs");
      RevocationValues revocation = RevocationValues.getInstance(value(unsigned, "24"));
      if (revocation.getCrlVals().length + revocation.getOcspVals().length == 0) faults.add(who + ": no revocation values");
    }
    if (faults.isEmpty()) System.out.println("ok " + n);
    else faults.forEach(System.out::println);
    System.exit(faults.isEmpty() ? 0 : 1);
  }

  static ASN1Encodable value(AttributeTable table, String oid) {
    Attribute a = table.get(new ASN1ObjectIdentifier(AA + oid));
    if (a == null || a.getAttrValues().size() != 1) throw new IllegalStateException("attribute " + AA + oid);
    return a.getAttrValues().getObjectAt(0);
  }

  // The token's own signature by its authority's certificate, and its imprint
  // over `covered` with the signer's digest.
  static void checkToken(String what, ASN1Encodable token, String digest, byte[] covered) throws Exception {
    TimeStampToken stamp = new TimeStampToken(new CMSSignedData(token.toASN1Primitive().getEncoded("DER")));
    Store<X509CertificateHolder> certs = stamp.getCertificates();
    X509CertificateHolder authority = (X509CertificateHolder) certs.getMatches(stamp.getSID()).iterator().next();
    stamp.validate(new JcaSimpleSignerInfoVerifierBuilder().setProvider("BC").build(authority));
    if (!stamp.getTimeStampInfo().getMessageImprintAlgOID().getId().equals(digest)) faults.add(what + ": imprint algorithm");
    byte[] expected = MessageDigest.getInstance(digest, "BC").digest(covered);
    if (!Arrays.equals(expected, stamp.getTimeStampInfo().getMessageImprintDigest())) faults.add(what + ": imprint");
  }
}
