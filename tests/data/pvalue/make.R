# Made the files of this folder: genotypes, G with 5 % of the identity, records, and in expected.txt the effects of the
# SNPs, their variances and P-values by dense algebra (R 4.2.2).
set.seed(7); n <- 25; m <- 40; vg <- 2; ve <- 3
M <- matrix(rbinom(n*m,2,runif(m,.1,.9)[rep(1:m,each=n)]),n,m)
f <- colMeans(M)/2; Z <- sweep(M,2,2*f); s <- sum(2*f*(1-f))
G <- .95*Z%*%t(Z)/s + .05*diag(n); Gi <- solve(G)
y <- round(10 + rnorm(n,sd=2),3)
write.table(cbind(1,1:n,y),"data.txt",row.names=F,col.names=F)
k <- which(lower.tri(Gi,diag=TRUE),arr.ind=TRUE)
write.table(cbind(k,sprintf("%.17g",Gi[k])),"gi.txt",row.names=F,col.names=F,quote=F)
write.table(sprintf("%.17g",f),"freq.txt",row.names=F,col.names=F,quote=F)
write.table(cbind(1:n,1:n,0,0,0,-9),"g.fam",row.names=F,col.names=F)
write.table(cbind(1,paste0("s",1:m),0,1:m,"A","B"),"g.bim",row.names=F,col.names=F,quote=F)
con <- file("g.bed","wb"); writeBin(as.raw(c(0x6c,0x1b,1)),con)
code <- c(0L,2L,3L)
for (j in 1:m) { g <- code[M[,j]+1]; g <- c(g,rep(0L,(4-n%%4)%%4)); b <- matrix(g,4); writeBin(as.raw(b[1,]+4*b[2,]+16*b[3,]+64*b[4,]),con)}
close(con)
writeLines(paste("1 1",ve),"residual.txt"); writeLines(as.character(vg),"gg.txt")
X <- cbind(1,diag(n)); C <- crossprod(X)/ve; C[-1,-1] <- C[-1,-1]+Gi/vg; Ci <- solve(C); sol <- Ci%*%crossprod(X,y)/ve
u <- sol[-1]; a <- .95/s
eff <- a*t(Z)%*%Gi%*%u; T <- vg*Gi - Gi%*%Ci[-1,-1]%*%Gi; v <- a^2*colSums(Z*(T%*%Z)); p <- 2*pnorm(-abs(eff)/sqrt(v))
write.table(cbind(eff,v,p),"expected.txt",row.names=F,col.names=F)
