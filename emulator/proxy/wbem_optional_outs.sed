# Wine's wbemcli.idl declares the optional results of IWbemServices as plain [out] pointers, which NDR
# takes as reference pointers and refuses when null (RPC_X_NULL_REF_POINTER). Microsoft documents them as
# optional ("If NULL, this parameter is not used", IWbemServices::GetObject and the other calls), and the
# WMI protocol ([MS-WMI] 3.1.4.3) declares them [in, out, unique]: the proxies are generated with that.
/interface IWbemServices/,/^}/ {
    s/\[out\] IWbemCallResult \*\*/[in, out, unique] IWbemCallResult **/
    s/\[out\] IWbemClassObject \*\*ppObject/[in, out, unique] IWbemClassObject **ppObject/
    s/\[out\] IWbemClassObject \*\*ppOutParams/[in, out, unique] IWbemClassObject **ppOutParams/
    s/\[out\] IWbemServices \*\*ppWorkingNamespace/[in, out, unique] IWbemServices **ppWorkingNamespace/
}
